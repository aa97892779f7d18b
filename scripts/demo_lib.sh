# Shared by the demo scripts; sourced, not run. Needs $bin and $work.

# start_server BUNDLE_DIR [ARGS...]: starts ftc-server on loopback with ARGS as well; sets
# server_pid and port.
start_server() {
  echo "== starting ftc-server on 127.0.0.1"
  local root=$1
  shift
  "$bin/ftc-server" --root "$root" --bind 127.0.0.1 --port 0 \
    --reports "$work/reports.log" --db "sqlite:$work/fleet.db" "$@" >"$work/server.log" 2>&1 &
  server_pid=$!
  port=""
  for _ in $(seq 1 100); do
    port=$(sed -n 's/^listening on [0-9.]*:\([0-9]*\).*/\1/p' "$work/server.log" | head -n1)
    [ -n "$port" ] && break
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.05
  done
  if [ -z "$port" ]; then
    echo "demo: ftc-server did not start:" >&2
    cat "$work/server.log" >&2
    exit 1
  fi
  echo "   listening on 127.0.0.1:$port"
}

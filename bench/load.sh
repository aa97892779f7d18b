#!/usr/bin/env bash
# (f) A fleet at once against one ftc-server (SQLite store): BENCH_DEVICES devices each check in,
# fetch three files, deliver a batch of events and report completion; then the same with
# BENCH_IDLE connections held open and idle, and with slow readers (one byte a second) on a
# server with a single worker. Every request must be answered; the server's memory is reported.
# Usage: bench/load.sh BUILD_DIR
set -euo pipefail

BUILD=$(cd "${1:?usage: bench/load.sh BUILD_DIR}" && pwd)
BIN=$BUILD/bin
DEVICES=${BENCH_DEVICES:-1000}
IDLE=${BENCH_IDLE:-10000}
SLOW=${BENCH_SLOW:-50}
WORK=$(mktemp -d /tmp/ftc-load-bench.XXXXXX)
SERVER=""
cleanup() {
  [ -n "$SERVER" ] && kill "$SERVER" 2>/dev/null && wait "$SERVER" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT
ulimit -n "$(ulimit -Hn)"
for tool in "$BIN/bench_load" "$BIN/ftc-server"; do
  [ -x "$tool" ] || { echo "bench: $tool is missing (make bench)"; exit 1; }
done

mkdir -p "$WORK/bundle/os"
head -c 4096 /dev/urandom >"$WORK/bundle/os/settings.xml"
head -c 65536 /dev/urandom >"$WORK/bundle/os/app.bin"
head -c 1048576 /dev/urandom >"$WORK/bundle/os/image.bin"
head -c 67108864 /dev/urandom >"$WORK/bundle/big.bin"
FILES=(os/settings.xml 'os\app.bin' os/image.bin)

# start_server THREADS: sets SERVER and PORT; each run has a store of its own.
start_server() {
  rm -f "$WORK"/fleet.db*
  "$BIN/ftc-server" --root "$WORK/bundle" --port 0 --db "sqlite:$WORK/fleet.db" --threads "$1" \
    --reports "$WORK/reports.jsonl" >"$WORK/server.out" 2>"$WORK/server.err" &
  SERVER=$!
  for _ in $(seq 100); do grep -q listening "$WORK/server.out" 2>/dev/null && break; sleep 0.1; done
  PORT=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$WORK/server.out")
  [ -n "$PORT" ] || { echo "bench: ftc-server did not start"; cat "$WORK/server.err"; exit 1; }
}
stop_server() { kill "$SERVER"; wait "$SERVER" || true; SERVER=""; }
memory() {
  awk '/^VmHWM/ { h = $2 } /^VmRSS/ { r = $2 } END { printf "server peak RSS %.1f MiB, now %.1f MiB", h / 1024, r / 1024 }' \
    "/proc/$SERVER/status"
}
# run LABEL ARGS...: one bench_load run; fails the bench unless every request was answered.
# The server's open descriptors are sampled meanwhile: the idle ones go when the client does.
run() {
  local label=$1 out most=0 n
  shift
  "$BIN/bench_load" "$PORT" "$@" "${FILES[@]}" >"$WORK/load.out" &
  local client=$!
  while kill -0 "$client" 2>/dev/null; do
    n=$(ls "/proc/$SERVER/fd" | wc -l)
    [ "$n" -gt "$most" ] && most=$n
    sleep 0.5
  done
  wait "$client" || { echo "bench: $label: not every request answered: $(cat "$WORK/load.out")"
                      tail -5 "$WORK/server.err"; exit 1; }
  echo "$label: $(cat "$WORK/load.out")"
  echo "  $(memory), at most $most descriptors open"
}

echo "== (f) $DEVICES devices at once: check-in, 3 files (4 KiB, 64 KiB, 1 MiB), 5 events, completion report"
start_server "$(nproc)"
run "plain" "$DEVICES"
stop_server

start_server "$(nproc)"
run "beside $IDLE idle connections" "$DEVICES" --idle "$IDLE"
stop_server

start_server 1
run "one worker, $SLOW slow readers of 64 MiB, 20 s" "$DEVICES" --slow "$SLOW" big.bin --hold 20
stop_server

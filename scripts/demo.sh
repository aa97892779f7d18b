#!/usr/bin/env bash
# One real upgrade job on this machine: a sample bundle served by ftc-server on loopback, run by
# ftc-host against a fresh device root that then delivers its reports to the same server, every
# file checked against its CRC-32; then a deployment of the same bundle that a device agent
# fetches and completes, and the fleet as the server records it, also on the fleet page.
# Usage: scripts/demo.sh BUILD_DIR        (make demo builds ./build and runs this)
# FTC_DEMO_TIME_SCALE (default 0.05) shortens the device's fixed pauses; FTC_DEMO_KEEP=1 keeps
# the work folder (bundle, device roots, logs) for a look afterwards; FTC_DEMO_HOLD=1 keeps the
# server (and its fleet page) up at the end until Enter is pressed.
set -euo pipefail

build=${1:-build}
bin=$build/bin
scale=${FTC_DEMO_TIME_SCALE:-0.05}
for p in ftc-server ftc-bundle ftc-host; do
  [ -x "$bin/$p" ] || { echo "demo: $bin/$p is missing; build first (make build)" >&2; exit 2; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/ftc-demo-XXXXXX")
. "$(dirname "$0")/demo_lib.sh"
server_pid=""
agent_pid=""
finish() {
  if [ -n "$agent_pid" ]; then
    kill "$agent_pid" 2>/dev/null || true
    wait "$agent_pid" 2>/dev/null || true
  fi
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  if [ "${FTC_DEMO_KEEP:-0}" = 1 ]; then
    echo "demo: work folder kept: $work"
  else
    rm -rf "$work"
  fi
}
trap finish EXIT INT TERM

bundle=$work/bundles/DemoBundle
echo "== preparing a sample bundle in $bundle"
mkdir -p "$bundle/app" "$bundle/os"
head -c 4194304 /dev/urandom >"$bundle/os/image.bin"
head -c 300000 /dev/urandom >"$bundle/app/main.bin"
printf '<settings>\n  <Server>demo</Server>\n</settings>\n' >"$bundle/app/settings.xml"
printf 'FileTransferConfiglet demo bundle\n' >"$bundle/readme.txt"
ls -l "$bundle" "$bundle/app" "$bundle/os" | sed 's/^/   /'

# Agents are told to check in every 20 device seconds: one second at the default scale.
start_server "$work/bundles" --admin-bind 127.0.0.1:0 --check-in 20
page=$(sed -n 's/^fleet page on \(.*\)/\1/p' "$work/server.log" | head -n1)
echo "   fleet page on ${page:-(not found, see $work/server.log)}"

echo "== writing the job file"
"$bin/ftc-bundle" job "$bundle" --server "http://127.0.0.1:$port/DemoBundle" \
  --dest '\Flash File Store\demo' --bundle DemoBundle --version 1.0 --out "$work/job.xml"
echo "   $work/job.xml"

echo "== running the job (time scale $scale: device pauses run at that fraction of their length)"
echo "   and delivering the device's reports to http://127.0.0.1:$port"
status=0
"$bin/ftc-host" run "$work/job.xml" --root "$work/device" --time-scale "$scale" \
  --deliver "http://127.0.0.1:$port" || status=$?

echo "== checking the files on the device root against their CRC-32"
crc32() {
  # gzip's trailer holds the CRC-32 of its input, little-endian.
  gzip -c "$1" | tail -c8 | head -c4 | od -An -tu4 --endian=little | tr -d ' \n'
}
bad=0
checked=0
dest=""
while IFS= read -r line; do
  case "$line" in
    *'<Field Name="Dest">'*) dest=$(printf '%s' "$line" | sed 's/.*<Field Name="Dest">\(.*\)<\/Field>.*/\1/') ;;
    *'<Field Name="CRC">'*)
      want=$(printf '%s' "$line" | sed 's/.*<Field Name="CRC">\(.*\)<\/Field>.*/\1/')
      host="$work/device/$(printf '%s' "${dest#\\}" | tr '\\' '/')"
      if [ -f "$host" ] && [ "$(crc32 "$host")" = "$want" ]; then
        echo "   ok      $dest"
      else
        echo "   WRONG   $dest" >&2
        bad=$((bad + 1))
      fi
      checked=$((checked + 1))
      ;;
  esac
done <"$work/job.xml"
echo "   $checked files checked, $bad wrong"
echo "== a deployment of the same bundle, fetched and run by the agent of a second device"
mkdir -p "$work/agent-device/.winux"
printf 'uniqueid=demo-agent-1\nserial=DEMO0001\nhwcfg=DEMO-HW\n' >"$work/agent-device/.winux/identity"
"$bin/ftc-host" agent --server "http://127.0.0.1:$port" --root "$work/agent-device" \
  --interval 20 --time-scale "$scale" >"$work/agent.log" 2>&1 &
agent_pid=$!
created=$("$bin/ftc-server" deploy create --db "sqlite:$work/fleet.db" --root "$work/bundles" \
  --bundle DemoBundle --version 1.0 --server "http://127.0.0.1:$port" \
  --dest '\Flash File Store\demo' --devices demo-agent-1)
echo "   $created"
deployment=$(printf '%s' "$created" | sed -n 's/^deployment \([0-9]*\):.*/\1/p')
deployed=""
for _ in $(seq 1 240); do
  shown=$("$bin/ftc-server" deploy show "$deployment" --db "sqlite:$work/fleet.db" --json)
  case "$shown" in
    *'"state":"done"'*)
      case "$shown" in *'"state":"complete"'*) deployed=1 ;; esac
      break
      ;;
  esac
  kill -0 "$agent_pid" 2>/dev/null || break
  sleep 0.5
done
kill "$agent_pid" 2>/dev/null || true
wait "$agent_pid" 2>/dev/null || true
agent_pid=""
echo "   the agent said (its job's whole output is in agent.log):"
grep -E '^(agent |deployment |delivering |delivered )|outcome:|^ +Upgrade Complete$' "$work/agent.log" |
  sed 's/^ */   | /' || true
"$bin/ftc-server" deploy show "$deployment" --db "sqlite:$work/fleet.db" | sed 's/^./   &/'
[ -n "$deployed" ] || { echo "   WRONG   the deployment did not complete" >&2; bad=$((bad + 1)); }

echo "== the server recorded the completion reports:"
sed 's/^/   /' "$work/reports.log" 2>/dev/null || echo "   (none)"
echo "== the fleet as the server sees it:"
"$bin/ftc-server" fleet --db "sqlite:$work/fleet.db" | sed 's/^./   &/' || echo "   (no fleet store)"

if [ "$status" -eq 0 ] && [ "$bad" -ne 0 ]; then status=1; fi
if [ "${FTC_DEMO_HOLD:-0}" = 1 ]; then
  echo "== the fleet page stays on $page until you press Enter"
  read -r _ || true
fi
echo "== demo finished with status $status"
exit "$status"

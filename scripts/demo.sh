#!/usr/bin/env bash
# One real upgrade job on this machine: a sample bundle served by ftc-server on loopback, run by
# ftc-host against a fresh device root that then delivers its reports to the same server, every
# file checked against its CRC-32, and the fleet as the server records it.
# Usage: scripts/demo.sh BUILD_DIR        (make demo builds ./build and runs this)
# FTC_DEMO_TIME_SCALE (default 0.05) shortens the device's fixed pauses; FTC_DEMO_KEEP=1 keeps
# the work folder (bundle, device root, logs) for a look afterwards.
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
finish() {
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

echo "== preparing a sample bundle in $work/bundle"
mkdir -p "$work/bundle/app" "$work/bundle/os"
head -c 4194304 /dev/urandom >"$work/bundle/os/image.bin"
head -c 300000 /dev/urandom >"$work/bundle/app/main.bin"
printf '<settings>\n  <Server>demo</Server>\n</settings>\n' >"$work/bundle/app/settings.xml"
printf 'FileTransferConfiglet demo bundle\n' >"$work/bundle/readme.txt"
ls -l "$work/bundle" "$work/bundle/app" "$work/bundle/os" | sed 's/^/   /'

start_server "$work/bundle"

echo "== writing the job file"
"$bin/ftc-bundle" job "$work/bundle" --server "http://127.0.0.1:$port" \
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
echo "== the server recorded the completion report:"
sed 's/^/   /' "$work/reports.log" 2>/dev/null || echo "   (none)"
echo "== the fleet as the server sees it:"
"$bin/ftc-server" fleet --db "sqlite:$work/fleet.db" | sed 's/^./   &/' || echo "   (no fleet store)"

if [ "$status" -eq 0 ] && [ "$bad" -ne 0 ]; then status=1; fi
echo "== demo finished with status $status"
exit "$status"

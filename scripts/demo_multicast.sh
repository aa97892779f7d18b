#!/usr/bin/env bash
# A bundle delivered by multicast and repaired over HTTP: uftp sends the bundle on loopback
# (unicast mode) with one file left out and one damaged; the plug-in's job receives the session
# through its multicast receiver, then fetches from ftc-server only what did not arrive intact.
# Usage: scripts/demo_multicast.sh BUILD_DIR   (make demo-multicast builds ./build and runs this)
# FTC_DEMO_TIME_SCALE (default 0.05) shortens the device's fixed pauses; FTC_DEMO_KEEP=1 keeps
# the work folder (bundle, device root, logs) for a look afterwards.
set -euo pipefail

build=${1:-build}
bin=$build/bin
scale=${FTC_DEMO_TIME_SCALE:-0.05}
for p in ftc-server ftc-bundle ftc-host; do
  [ -x "$bin/$p" ] || { echo "demo: $bin/$p is missing; build first (make build)" >&2; exit 2; }
done
for p in uftp uftpd; do
  command -v "$p" >/dev/null || { echo "demo: $p is missing (scripts/bootstrap.sh multicast)" >&2; exit 2; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/ftc-mcdemo-XXXXXX")
. "$(dirname "$0")/demo_lib.sh"
server_pid=""
host_pid=""
sender_pid=""
finish() {
  for pid in "$sender_pid" "$host_pid" "$server_pid"; do
    if [ -n "$pid" ]; then
      kill "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  if [ "${FTC_DEMO_KEEP:-0}" = 1 ]; then
    echo "demo: work folder kept: $work"
  else
    rm -rf "$work"
  fi
}
trap finish EXIT INT TERM

# A free UDP port on loopback for the session.
free_udp_port() {
  local p
  for _ in $(seq 1 50); do
    p=$((20000 + RANDOM % 20000))
    if ! ss -Hlun "sport = :$p" 2>/dev/null | grep -q .; then
      echo "$p"
      return
    fi
  done
  echo 21044
}

echo "== preparing a bundle in $work/bundle"
mkdir -p "$work/bundle/app" "$work/bundle/os" "$work/bundle/docs"
head -c 2097152 /dev/urandom >"$work/bundle/os/image.bin"
head -c 300000 /dev/urandom >"$work/bundle/app/main.bin"
printf '<settings>\n  <Server>demo</Server>\n</settings>\n' >"$work/bundle/app/settings.xml"
printf 'FileTransferConfiglet multicast demo bundle\n' >"$work/bundle/docs/readme.txt"
"$bin/ftc-bundle" list "$work/bundle" --dest '\Flash File Store\demo' | sed 's/^/   /'

echo "== the multicast copy: os/image.bin left out, docs/readme.txt damaged"
cp -r "$work/bundle" "$work/sent"
rm "$work/sent/os/image.bin"
printf 'FileTransferConfiglet multicast demo bundlE\n' >"$work/sent/docs/readme.txt"

start_server "$work/bundle"

session=$(free_udp_port)
params="-D \"\\Flash File Store\\demo\" -P $session -M 127.0.0.1 -I 127.0.0.1 -T 30"
echo "== writing the job file, with the multicast receiver's parameters:"
echo "   $params"
"$bin/ftc-bundle" job "$work/bundle" --server "http://127.0.0.1:$port" \
  --dest '\Flash File Store\demo' --list filelist.txt --bundle DemoMulticast --version 1.0 \
  --out "$work/job.xml"
xml=$(printf '%s' "$params" | sed 's/&/\&amp;/g; s/"/\&quot;/g')
# Backslashes, ampersands and the delimiter are special in a sed replacement.
repl=$(printf '%s' "$xml" | sed 's/[\\&|]/\\&/g')
sed -i "s|^\(\s*\)<Group Name=\"Upgrade\" */>|\1<Group Name=\"MulticastClient\"><Field Name=\"Parameters\">$repl</Field></Group>\n&|" \
  "$work/job.xml"
grep -q 'Name="MulticastClient"' "$work/job.xml" || { echo "demo: job file not amended" >&2; exit 1; }

echo "== running the job (time scale $scale)"
"$bin/ftc-host" run "$work/job.xml" --root "$work/device" --time-scale "$scale" \
  >"$work/host.out" 2>&1 &
host_pid=$!
log="$work/device/tmp/FileXfer.txt"
for _ in $(seq 1 600); do
  grep -q 'StartMulticastClient - mc.Start' "$log" 2>/dev/null && break
  kill -0 "$host_pid" 2>/dev/null || break
  sleep 0.05
done
echo "== uftp sends the multicast copy to port $session"
uftp -p "$session" -M 127.0.0.1 -I 127.0.0.1 -H 127.0.0.1 -R 100000 \
  "$work/sent/filelist.txt" "$work/sent/app" "$work/sent/docs" >"$work/uftp.log" 2>&1 &
sender_pid=$!
status=0
wait "$host_pid" || status=$?
host_pid=""
wait "$sender_pid" 2>/dev/null || true
sender_pid=""
sed 's/^/   /' "$work/host.out"

echo "== what happened on the device"
grep -o 'StartMulticastClient - mc.Start, !.*!' "$log" | sed 's/^/   /' || true
echo "   repaired over HTTP:"
grep -o 'ValidateFiles - \(crc mismatch\|crc error, no file\), [^,]*' "$log" | sed 's/^/     /' || true
grep -o 'ValidateFiles - http fetching !.*!' "$log" | sed 's/^/     /' || true
fetched=$(grep -c 'ValidateFiles - http fetching' "$log" || true)

echo "== checking every device file against the bundle"
bad=0
checked=0
while IFS= read -r rel; do
  host="$work/device/Flash File Store/demo/$rel"
  if cmp -s "$work/bundle/$rel" "$host"; then
    echo "   ok      $rel"
  else
    echo "   WRONG   $rel" >&2
    bad=$((bad + 1))
  fi
  checked=$((checked + 1))
done < <(cd "$work/bundle" && find . -type f | sed 's|^\./||' | sort)
echo "   $checked files checked, $bad wrong; $fetched fetched over HTTP (expected 2)"

if [ "$status" -eq 0 ] && { [ "$bad" -ne 0 ] || [ "$fetched" -ne 2 ]; }; then status=1; fi
echo "== multicast demo finished with status $status"
exit "$status"

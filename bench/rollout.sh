#!/usr/bin/env bash
# (f) Rollout: one bundle to fleets of 1, 10 and 50 devices (ftc-fleet: namespaces, real agents,
# one deployment), at 0% and 5% multicast loss, by multicast with HTTP repair against HTTP only,
# side by side: wall time to the last device and the bytes the upgrade server sent over HTTP.
# Targets: with multicast the server's HTTP bytes stay near the lost share of the bundle per
# device (not a bundle per device), and the last of 50 devices is done within 3x the time of 1.
# Usage: bench/rollout.sh BUILD_DIR
# BENCH_FLEET_SIZES ("1 10 50"), BENCH_FLEET_MB (bundle size, 50), BENCH_FLEET_LOSSES ("0 0.05"),
# BENCH_FLEET_RATE (multicast send rate in Kbit/s, 100000).
set -euo pipefail

BUILD=$(cd "${1:?usage: bench/rollout.sh BUILD_DIR}" && pwd)
FLEET=$BUILD/bin/ftc-fleet
SIZES=${BENCH_FLEET_SIZES:-1 10 50}
MB=${BENCH_FLEET_MB:-50}
LOSSES=${BENCH_FLEET_LOSSES:-0 0.05}
RATE=${BENCH_FLEET_RATE:-100000}

[ -x "$FLEET" ] || { echo "bench: $FLEET is missing (make bench)"; exit 1; }
if [ "$(id -u)" -ne 0 ]; then
  echo "(f) rollout skipped: ftc-fleet needs root for its network namespaces"
  exit 0
fi
for tool in uftp uftpd nft ip; do
  command -v "$tool" >/dev/null || { echo "bench: $tool is missing (scripts/bootstrap.sh bench)"; exit 1; }
done
WORK=$(mktemp -d /tmp/ftc-rollout-bench.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
calc() { awk "BEGIN { printf \"%.2f\", $* }"; }

# About MB MiB: six image parts shared by every device, and a file for each of two hardware
# families. uftp pays a round of acknowledgements per file, so fewer files send faster.
mkdir -p "$WORK/bundle/os" "$WORK/bundle/kiosk" "$WORK/bundle/till"
for i in 0 1 2 3 4 5; do
  head -c $(((MB - 2) * 1048576 / 6)) /dev/urandom >"$WORK/bundle/os/part$i.bin"
done
head -c 1048576 /dev/urandom >"$WORK/bundle/kiosk/screen.bin"
head -c 1048576 /dev/urandom >"$WORK/bundle/till/drawer.bin"
bundle=$(du -sb "$WORK/bundle" | cut -f1)

# run MODE N LOSS: sets WALL (s), HTTP and MC (bytes); fails unless every device completed.
run() {
  local out
  if ! out=$("$FLEET" "--$1" --devices "$2" --loss "$3" --bundle "$WORK/bundle" \
    --rate "$RATE" --time-scale 0.05 --timeout 1800 2>&1); then
    echo "bench: ftc-fleet --$1 --devices $2 --loss $3 failed:" >&2
    echo "$out" | tail -8 >&2
    exit 1
  fi
  WALL=$(echo "$out" | sed -n 's/^wall time to last device: \([0-9.]*\) s.*/\1/p')
  HTTP=$(echo "$out" | sed -n 's/^server HTTP bytes: \([0-9]*\).*/\1/p')
  MC=$(echo "$out" | sed -n 's/^multicast bytes delivered: \([0-9]*\).*/\1/p')
}

echo "== (f) rollout of a $((bundle / 1048576)) MiB bundle; multicast at $RATE Kbit/s; $(nproc) cores, $(uname -r)"
printf '%-8s %-6s | %-33s | %-21s | %s\n' "devices" "loss" "multicast: wall s, HTTP MB, mc MB" \
  "HTTP only: wall s, MB" "ratios (multicast / HTTP only): wall, HTTP bytes"
declare -A wall1
status=0
for loss in $LOSSES; do
  for n in $SIZES; do
    run multicast "$n" "$loss"
    mw=$WALL mh=$HTTP mm=$MC
    run http-only "$n" "$loss"
    hw=$WALL hh=$HTTP
    printf '%-8s %-6s | %9s %10s %10s     | %9s %10s   | %s, %s\n' "$n" "$(calc "$loss * 100")%" \
      "$mw" "$(calc "$mh / 1e6")" "$(calc "$mm / 1e6")" "$hw" "$(calc "$hh / 1e6")" \
      "$(calc "$mw / $hw")" "$(awk "BEGIN { printf \"%.5f\", $mh / $hh }")"
    [ -n "${wall1[$loss]:-}" ] || wall1[$loss]=$mw
    # The lost share of each device's bundle, with 1% and a few kB of check-ins as slack.
    limit=$(calc "$n * ($bundle * ($loss + 0.01) + 100000)")
    if awk "BEGIN { exit !($mh > $limit) }"; then
      echo "   multicast HTTP bytes $mh above the lost share ($limit): BELOW target"
      status=1
    fi
    if [ "$n" = 50 ]; then
      r=$(calc "$mw / ${wall1[$loss]}")
      verdict=$(awk "BEGIN { print ($r <= 3) ? \"meets target\" : \"BELOW target\" }")
      echo "   last of 50 devices / 1 device by multicast: ${r}x (target <= 3: $verdict)"
    fi
  done
done
exit "$status"

#!/usr/bin/env bash
# Installs the two packages in a throwaway Debian root, runs their services as the units would,
# lets the agent complete a deployment, then upgrades, removes and purges them.
# Usage: scripts/package_test.sh BUILD_DIR   (root: debootstrap, chroot and namespaces)
# The base root is kept under BUILD_DIR/package-test, keyed by the packages' dependencies.
set -euo pipefail

build=$(realpath "${1:?build folder}")
work=$build/package-test
src=$(cd "$(dirname "$0")/.." && pwd)
mirror=${FTC_DEBIAN_MIRROR:-http://deb.debian.org/debian}

fail() { echo "package test: FAILED: $*" >&2; exit 1; }
step() { echo "== $*"; }

if [ -z "${FTC_PACKAGE_TEST_INSIDE:-}" ]; then
  [ "$(id -u)" -eq 0 ] || fail "needs root (debootstrap, chroot)"
  mkdir -p "$work"
  debs=("$build"/ftc-server_*.deb "$build"/ftc-device_*.deb)
  [ -f "${debs[0]}" ] && [ -f "${debs[1]}" ] || fail "no packages in $build (make package)"
  # The upgrade: the same build under a later version.
  rm -rf "$work/next" && mkdir -p "$work/next"
  (cd "$build" && cpack -G DEB -R "$(dpkg-deb -f "${debs[0]}" Version)+1" -B "$work/next" >/dev/null 2>&1)
  rm -rf "$work/next/_CPack_Packages"

  deps=$(for d in "${debs[@]}"; do dpkg-deb -f "$d" Depends; done | tr ',' '\n' |
         sed 's/(.*//; s/|.*//; s/ //g' | grep -v '^$' | sort -u | paste -sd,)
  base=$work/base-$(printf '%s' "$deps" | md5sum | cut -c1-12).tar
  if [ ! -f "$base" ]; then
    step "debootstrap bookworm with $deps (kept as $(basename "$base"))"
    rm -rf "$work/bootstrap"
    debootstrap --variant=minbase --include="$deps" bookworm "$work/bootstrap" "$mirror" >"$work/debootstrap.log" 2>&1 ||
      fail "debootstrap (see $work/debootstrap.log)"
    tar -C "$work/bootstrap" -cf "$base.part" . && mv "$base.part" "$base"
    rm -rf "$work/bootstrap"
  fi

  step "lintian"
  lintian --fail-on error,warning \
    "${debs[@]}" || fail "lintian found warnings or errors"

  step "systemd-analyze security"
  for unit in "$src"/service/systemd/*.service; do
    systemd-analyze security --offline=true --threshold=25 --no-pager "$unit" >"$work/$(basename "$unit").security" ||
      fail "$(basename "$unit") exposure above 2.5: $(tail -1 "$work/$(basename "$unit").security")"
    tail -1 "$work/$(basename "$unit").security"
  done

  # Private mounts, loopback of our own and a fresh process tree: nothing outlives the test.
  FTC_PACKAGE_TEST_INSIDE=1 FTC_BASE=$base exec unshare --mount --net --pid --fork --mount-proc \
    "$0" "$@"
fi

ip link set lo up
root=$work/root
rm -rf "$root" && mkdir -p "$root"
tar -C "$root" -xf "$FTC_BASE"
mount -t proc proc "$root/proc"
mkdir -p "$root/tmp/debs" "$root/tmp/next"
cp "$build"/ftc-server_*.deb "$build"/ftc-device_*.deb "$root/tmp/debs/"
cp "$work"/next/*.deb "$root/tmp/next/"
in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }
wait_for() {  # seconds, description, command...
  local limit=$1 what=$2; shift 2
  for _ in $(seq $((limit * 5))); do "$@" >/dev/null 2>&1 && return 0; sleep 0.2; done
  fail "$what"
}
metrics() { curl -sf http://127.0.0.1:9180/metrics; }
has_metric() { metrics | grep -qF "$1"; }

step "install"
in_root sh -c 'dpkg -i /tmp/debs/*.deb' >"$work/dpkg.log" 2>&1 ||
  fail "dpkg -i: $(tail -5 "$work/dpkg.log")"
for u in ftc-server ftc-device; do
  in_root getent passwd $u >/dev/null || fail "no user $u"
  [ "$(stat -c %u "$root/var/lib/$u")" = "$(in_root id -u $u)" ] || fail "/var/lib/$u is not $u's"
  [ -L "$root/etc/systemd/system/multi-user.target.wants/$u.service" ] || fail "$u.service not enabled"
  [ -f "$root/etc/ftc/${u#ftc-}.conf" ] || fail "no /etc/ftc/${u#ftc-}.conf"
done
# systemd's own check of the installed units, their programs taken from the root.
for u in ftc-server ftc-device; do
  sed "s#=/usr/bin/#=$root/usr/bin/#" "$root/lib/systemd/system/$u.service" >"$work/$u.service"
  systemd-analyze verify --man=no "$work/$u.service" >"$work/$u.verify" 2>&1 ||
    fail "systemd-analyze verify $u.service: $(cat "$work/$u.verify")"
done
for page in ftc-server ftc-bundle ftc-host; do
  [ -f "$root/usr/share/man/man1/$page.1.gz" ] || fail "no man page $page(1)"
done

# A unit's service as systemd would start it: its ExecStart, as its user, told where to notify.
pids=()
start_unit() {
  local unit=$root/lib/systemd/system/$1.service name=$1
  local exec user watchdog uid gid
  exec=$(sed -n 's/^ExecStart=//p' "$unit")
  user=$(sed -n 's/^User=//p' "$unit")
  watchdog=$(sed -n 's/^WatchdogSec=//p' "$unit")
  uid=$(in_root id -u "$user") gid=$(in_root id -g "$user")
  rm -f "$root/run/$name.notify" "$work/$name.notices"
  python3 -c '
import os, socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1]); os.chmod(sys.argv[1], 0o777)
with open(sys.argv[2], "a", buffering=1) as out:
    while True: out.write(s.recv(4096).decode() + "\n")' "$root/run/$name.notify" "$work/$name.notices" &
  wait_for 5 "notify socket for $name" test -S "$root/run/$name.notify"
  chroot --userspec="$uid:$gid" "$root" env -i PATH=/usr/bin:/bin NOTIFY_SOCKET="/run/$name.notify" \
    ${watchdog:+WATCHDOG_USEC=${watchdog}000000} $exec >>"$work/$name.log" 2>&1 &
  pids+=($!)
  wait_for 20 "$name ready (see $work/$name.log)" grep -qx READY=1 "$work/$name.notices"
}
stop_unit() {  # name pid
  kill -TERM "$2"
  local status=0
  wait "$2" || status=$?
  [ $status -eq 0 ] || fail "$1 exited with $status on SIGTERM"
  grep -qx STOPPING=1 "$work/$1.notices" || fail "$1 did not say it was stopping"
}

step "start ftc-server as its unit does; reload a shorter check-in"
start_unit ftc-server
server_pid=${pids[-1]}
sed -i 's/^check-in = .*/check-in = 1/' "$root/etc/ftc/server.conf"
kill -HUP "$server_pid"
wait_for 10 "server reloaded its settings" grep -q "settings reloaded" "$work/ftc-server.log"
mkdir -p "$root/var/lib/ftc-server/bundle/demo"
head -c 300000 /dev/urandom >"$root/var/lib/ftc-server/bundle/demo/app.bin"

step "start ftc-device; deploy to every device the server knows"
start_unit ftc-device
agent_pid=${pids[-1]}
wait_for 30 "the device in the fleet" has_metric 'ftc_devices{state="no report"} 1'
server_uid=$(in_root id -u ftc-server)
chroot --userspec="$server_uid:$server_uid" "$root" env -i PATH=/usr/bin:/bin \
  ftc-server deploy create --bundle demo --dest '\Flash File Store\demo' --all ||
  fail "deploy create"
wait_for 120 "the deployment completed (see $work/ftc-device.log)" \
  has_metric 'ftc_deployment_devices{deployment="1",state="complete"} 1'
wait_for 30 "the device complete in the fleet" has_metric 'ftc_devices{state="complete"} 1'
cmp "$root/var/lib/ftc-server/bundle/demo/app.bin" "$root/var/lib/ftc-device/Flash File Store/demo/app.bin" ||
  fail "the device's copy differs"
wait_for 10 "the agent's figures" grep -q 'ftc_agent_jobs_total{outcome="complete"} 1' \
  "$root/var/lib/ftc-device/metrics/ftc-device.prom"
grep -q 'ftc_agent_fetched_bytes_total 300000' "$root/var/lib/ftc-device/metrics/ftc-device.prom" ||
  fail "agent bytes: $(cat "$root/var/lib/ftc-device/metrics/ftc-device.prom")"
grep -qx WATCHDOG=1 "$work/ftc-server.notices" || sleep 16
grep -qx WATCHDOG=1 "$work/ftc-server.notices" || fail "no watchdog ping from ftc-server"
stop_unit ftc-device "$agent_pid"
stop_unit ftc-server "$server_pid"

step "upgrade"
in_root sh -c 'dpkg -i --force-confold /tmp/next/*.deb' >>"$work/dpkg.log" 2>&1 ||
  fail "upgrade: $(tail -5 "$work/dpkg.log")"
[[ "$(in_root dpkg-query -W -f '${Version}' ftc-server)" == *+1 ]] || fail "not upgraded"
grep -q '^check-in = 1' "$root/etc/ftc/server.conf" || fail "the edited settings were replaced"
start_unit ftc-server
wait_for 10 "the fleet kept across the upgrade" has_metric 'ftc_devices{state="complete"} 1'
stop_unit ftc-server "${pids[-1]}"

step "remove, then purge"
in_root dpkg -r ftc-server ftc-device >>"$work/dpkg.log" 2>&1 || fail "dpkg -r"
[ ! -e "$root/usr/bin/ftc-server" ] && [ -f "$root/etc/ftc/server.conf" ] ||
  fail "remove must take the programs and keep the settings"
in_root dpkg -P ftc-server ftc-device >>"$work/dpkg.log" 2>&1 || fail "dpkg -P"
for left in /etc/ftc /var/lib/ftc-server /var/lib/ftc-device \
            /etc/systemd/system/multi-user.target.wants/ftc-server.service; do
  [ ! -e "$root$left" ] && [ ! -L "$root$left" ] || fail "purge left $left"
done
umount "$root/proc"
rm -rf "$root"
echo "package test: passed"

#!/usr/bin/env bash
# Installs the Debian packages a target needs, only those that are missing.
# Usage: scripts/bootstrap.sh [build|test|bench|multicast|package|fuzz]...   (build is always included)
set -euo pipefail

pkgs=(cmake ninja-build g++ make pkg-config libpugixml-dev curl libcurl4-openssl-dev libsqlite3-dev
      libpq-dev nlohmann-json3-dev libinih-dev libsystemd-dev)
for set in "$@"; do
  case "$set" in
    build) ;;
    # The store's tests start their own PostgreSQL server from these binaries.
    # The fleet page is read back from headless Chromium.
    test) pkgs+=(libgtest-dev libgmock-dev uftp iproute2 nftables postgresql chromium
          libfiu-dev fiu-utils) ;;
    multicast) pkgs+=(uftp iproute2 nftables) ;;
    # Man pages from the help texts; the package test's throwaway root and its checks.
    package) pkgs+=(help2man dpkg-dev lintian debootstrap systemd python3 iproute2) ;;
    # libFuzzer ships in clang's runtime package.
    fuzz) pkgs+=(clang-14 libclang-rt-14-dev libgtest-dev libgmock-dev) ;;
    # A fleet's devices live in network namespaces (iproute2); nftables drops their multicast.
    bench) pkgs+=(libbenchmark-dev zlib1g-dev nginx-light libnginx-mod-stream wrk uftp iproute2
           nftables postgresql sqlite3 libarchive-zip-perl) ;;
    *) echo "bootstrap: unknown set '$set'" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "bootstrap: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

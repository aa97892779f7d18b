#!/usr/bin/env bash
# Installs the Debian packages a target needs, only those that are missing.
# Usage: scripts/bootstrap.sh [build|test|bench|multicast]...   (build is always included)
set -euo pipefail

pkgs=(cmake ninja-build g++ make pkg-config libpugixml-dev curl libcurl4-openssl-dev libsqlite3-dev
      libpq-dev nlohmann-json3-dev)
for set in "$@"; do
  case "$set" in
    build) ;;
    # The store's tests start their own PostgreSQL server from these binaries.
    # The fleet page is read back from headless Chromium.
    test) pkgs+=(libgtest-dev libgmock-dev uftp iproute2 postgresql chromium libfiu-dev fiu-utils) ;;
    multicast) pkgs+=(uftp iproute2) ;;
    bench) pkgs+=(libbenchmark-dev zlib1g-dev nginx-light libnginx-mod-stream wrk uftp postgresql
           sqlite3) ;;
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

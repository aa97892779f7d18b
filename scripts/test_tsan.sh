#!/usr/bin/env bash
# Builds the threaded suites with ThreadSanitizer in their own folder and runs them. A report from
# any process (the programs the tests start included) fails the run.
# Usage: scripts/test_tsan.sh BUILD_DIR JOBS SUITE...   (SUITE: a tests/ folder, e.g. unit/winux)
set -euo pipefail

BUILD=${1:?usage: scripts/test_tsan.sh BUILD_DIR JOBS SUITE...}
JOBS=${2:?usage: scripts/test_tsan.sh BUILD_DIR JOBS SUITE...}
shift 2
SRC=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$BUILD"
BUILD=$(cd "$BUILD" && pwd)

cmake -S "$SRC" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFTC_TSAN=ON >/dev/null
targets=() labels=()
for s in "$@"; do
  targets+=("test_${s//\//_}")
  labels+=("$s")
done
cmake --build "$BUILD" -j "$JOBS" --target "${targets[@]}"

reports=$BUILD/tsan-reports
rm -rf "$reports" && mkdir -p "$reports"
export TSAN_OPTIONS="log_path=$reports/report second_deadlock_stack=1 history_size=4"
rc=0
(cd "$BUILD" && ctest --output-on-failure -j "$JOBS" --timeout 300 \
  -L "^($(IFS='|'; echo "${labels[*]}"))\$") || rc=$?
if compgen -G "$reports/report*" >/dev/null; then
  echo "ThreadSanitizer reported:"
  cat "$reports"/report*
  rc=1
fi
exit $rc

#!/usr/bin/env bash
# Builds every fuzz target with clang's libFuzzer (ASan+UBSan) and runs each in turn for SECONDS.
# Usage: scripts/fuzz.sh BUILD_DIR SECONDS [TARGET...]   (default: every target)
# New inputs stay in BUILD_DIR/tests/fuzz/NAME/corpus, crash files beside it; the seeds in
# tests/fuzz/corpus are only read. One line per target: runs, corpus size, findings.
set -euo pipefail

BUILD=${1:?usage: scripts/fuzz.sh BUILD_DIR SECONDS [TARGET...]}
SECONDS_EACH=${2:?usage: scripts/fuzz.sh BUILD_DIR SECONDS [TARGET...]}
shift 2
SRC=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$BUILD"
BUILD=$(cd "$BUILD" && pwd)

CC=clang-14 CXX=clang++-14 cmake -S "$SRC" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DFTC_SANITIZE=ON -DFTC_LIBFUZZER=ON >/dev/null
grep -q '^CMAKE_CXX_COMPILER:.*clang' "$BUILD/CMakeCache.txt" ||
  { echo "fuzz: $BUILD was configured with another compiler; remove it"; exit 1; }

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in "$SRC"/tests/fuzz/*_fuzz.cpp; do
    n=$(basename "$f" .cpp)
    targets+=("${n%_fuzz}")
  done
fi
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}" --target "${targets[@]/#/fuzz_}"

status=0
for name in "${targets[@]}"; do
  out=$BUILD/tests/fuzz/$name
  mkdir -p "$out/corpus"
  args=(-max_total_time="$SECONDS_EACH" -timeout=30 -artifact_prefix="$out/" -print_final_stats=1)
  [ -f "$SRC/tests/fuzz/dict/$name.dict" ] && args+=(-dict="$SRC/tests/fuzz/dict/$name.dict")
  before=$(find "$out" -maxdepth 1 -name 'crash-*' -o -maxdepth 1 -name 'timeout-*' \
    -o -maxdepth 1 -name 'leak-*' -o -maxdepth 1 -name 'oom-*' | wc -l)
  rc=0
  (cd "$out" && FTC_BUILD_DIR=$BUILD "$BUILD/bin/fuzz_$name" "${args[@]}" "$out/corpus" \
    "$SRC/tests/fuzz/corpus/$name" >"$out/last.log" 2>&1) || rc=$?
  after=$(find "$out" -maxdepth 1 -name 'crash-*' -o -maxdepth 1 -name 'timeout-*' \
    -o -maxdepth 1 -name 'leak-*' -o -maxdepth 1 -name 'oom-*' | wc -l)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/last.log" | tail -1)
  echo "fuzz $name: ${SECONDS_EACH}s runs=${runs:-?} corpus=$(ls "$out/corpus" | wc -l)" \
    "findings=$((after - before)) exit=$rc"
  if [ "$rc" -ne 0 ] || [ "$after" -ne "$before" ]; then
    status=1
    grep -m5 -E 'ERROR|SUMMARY|property failed|==[0-9]+==' "$out/last.log" || true
  fi
done
exit $status

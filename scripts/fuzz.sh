#!/bin/sh
# Builds the libFuzzer targets with clang and runs each for a bounded time on its
# committed seed corpus (copied, so the repository's corpus stays as committed).
# Seconds per target: first argument or MCD_FUZZ_SECONDS (default 30). Fails on a crash.
set -e
cd "$(dirname "$0")/.."
scripts/setup.sh
SECONDS_PER_TARGET=${1:-${MCD_FUZZ_SECONDS:-30}}
BUILD=build/fuzz
cmake -S . -B "$BUILD" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMCD_BUILD_FUZZERS=ON -DMCD_BUILD_TESTS=OFF -DMCD_BUILD_BENCH=OFF -DMCD_SANITIZE=address >/dev/null
cmake --build "$BUILD" -j "$(nproc)"
for target in fuzz/corpus/*/; do
  name=$(basename "$target")
  work="$BUILD/corpus/$name"
  mkdir -p "$work" "$BUILD/artifacts"
  cp -f "$target"* "$work"/
  echo "=== fuzzing $name for ${SECONDS_PER_TARGET}s ==="
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$BUILD/fuzz/$name" -max_total_time="$SECONDS_PER_TARGET" -max_len=600 -timeout=20 \
    -artifact_prefix="$BUILD/artifacts/$name-" -print_final_stats=1 "$work" 2>"$BUILD/$name.log" \
    || { tail -60 "$BUILD/$name.log"; echo "fuzz target $name failed" >&2; exit 1; }
  grep -E 'stat::number_of_executed_units|stat::peak_rss_mb' "$BUILD/$name.log" | tr '\n' ' '
  echo
done
echo "all fuzz targets ran without a crash"

#!/bin/sh
# Builds the libFuzzer targets with clang and runs each for a bounded time on its
# committed seed corpus (copied, so the repository's corpus stays as committed).
# Seconds per target: first argument or MCD_FUZZ_SECONDS (default 30). Fails on a crash.
# MCD_FUZZ_BUILD names the build folder (default build/fuzz).
set -e
cd "$(dirname "$0")/.."
scripts/setup.sh
SECONDS_PER_TARGET=${1:-${MCD_FUZZ_SECONDS:-30}}
BUILD=${MCD_FUZZ_BUILD:-build/fuzz}
cmake -S . -B "$BUILD" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMCD_BUILD_FUZZERS=ON -DMCD_BUILD_TESTS=OFF -DMCD_BUILD_BENCH=OFF -DMCD_SANITIZE=address >/dev/null
cmake --build "$BUILD" -j "$(nproc)"
JOBS=${MCD_FUZZ_JOBS:-$(nproc)}

# Runs one target on a copy of its corpus; its log and exit status go to files.
run_target() {
  name=$1
  work="$BUILD/corpus/$name"
  mkdir -p "$work" "$BUILD/artifacts"
  cp -f "fuzz/corpus/$name/"* "$work"/
  # Meter answers fit in a 272-byte buffer; configuration replies may be longer, and
  # must be, for nesting deep enough to trouble the JSON reader.
  max_len=600
  [ "$name" = config_json_fuzz ] && max_len=4096
  status=0
  # each run's file-system root (volatile, storage, lamps) goes under the build folder
  rm -rf "$BUILD/roots/$name"
  mkdir -p "$BUILD/roots/$name"
  TMPDIR=$(cd "$BUILD/roots/$name" && pwd) ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$BUILD/fuzz/$name" -max_total_time="$SECONDS_PER_TARGET" -max_len="$max_len" -timeout=20 \
    -artifact_prefix="$BUILD/artifacts/$name-" -print_final_stats=1 "$work" 2>"$BUILD/$name.log" || status=$?
  echo "$status" >"$BUILD/$name.status"
}

# Reports a finished target; false when it failed.
report_target() {
  name=$1
  if [ "$(cat "$BUILD/$name.status")" != 0 ]; then
    tail -60 "$BUILD/$name.log"
    echo "fuzz target $name failed" >&2
    return 1
  fi
  echo "=== $name: $(grep -E 'stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$BUILD/$name.log" | tr -s ' \n' ' ')"
}

# Targets run JOBS at a time, each for SECONDS_PER_TARGET.
echo "fuzzing every target for ${SECONDS_PER_TARGET}s, $JOBS at a time"
failed=0
batch=""
for target in fuzz/corpus/*/; do
  name=$(basename "$target")
  run_target "$name" &
  batch="$batch $name"
  if [ "$(echo $batch | wc -w)" -ge "$JOBS" ]; then
    wait
    for done_name in $batch; do report_target "$done_name" || failed=1; done
    batch=""
  fi
done
wait
for done_name in $batch; do report_target "$done_name" || failed=1; done
if [ "$failed" != 0 ]; then
  echo "a fuzz target failed; the input that failed is in $BUILD/artifacts/" >&2
  exit 1
fi
echo "all fuzz targets ran without a crash"

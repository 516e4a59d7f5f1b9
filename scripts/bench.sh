#!/bin/sh
# Builds mcd_main (build/bench) and runs the benchmarks; extra arguments go to
# bench/run_bench.py (e.g. --days 7 for a shorter backfill).
set -e
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMCD_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench --target mcd_main -j "$(nproc)"
exec python3 bench/run_bench.py "$@"

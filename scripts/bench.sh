#!/bin/sh
# Builds mcd_main (build/bench, release build with debug information) and runs the
# benchmarks; extra arguments go to bench/run_bench.py (e.g. --days 7 for a shorter
# backfill, --families VKT-7 for one family, --parts backfill for one part). About 25
# minutes with the defaults.
set -e
cd "$(dirname "$0")/.."
scripts/setup.sh
launcher=""
if command -v ccache >/dev/null 2>&1; then launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"; fi
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMCD_BUILD_TESTS=OFF -DMCD_BUILD_BENCH=OFF $launcher >/dev/null
cmake --build build/bench --target mcd_main -j "$(nproc)"
exec python3 bench/run_bench.py "$@"

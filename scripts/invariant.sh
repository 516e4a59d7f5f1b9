#!/bin/sh
# Randomized end-to-end archive invariant: one scenario per seed (random time zone with a
# daylight-saving change inside the archive, random faults during the backfill, a healthy
# catch-up, then the archive checker), see docs/invariant.md.
#   scripts/invariant.sh 1 2 3            scripts/invariant.sh $(seq 100 199)
# Builds mcd_main in build/plain unless MCD_MAIN names a binary; the runs' files go to
# build/invariant/seed-N (MCD_INVARIANT_WORK to change). Prints one line per seed and
# "N passed, N failed"; the exit status is 0 when every seed passed.
set -e
cd "$(dirname "$0")/.."
if [ $# -eq 0 ]; then
  echo "usage: $0 SEED..." >&2
  exit 2
fi
if [ -z "$MCD_MAIN" ]; then
  launcher=""
  command -v ccache >/dev/null && launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"
  cmake -S . -B build/plain -DMCD_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMCD_BUILD_BENCH=OFF \
    $launcher >/dev/null
  cmake --build build/plain -j "$(nproc)" --target mcd_main >/dev/null
  MCD_MAIN=build/plain/mcd_main
fi
exec python3 tools/invariant_run.py --binary "$MCD_MAIN" --work "${MCD_INVARIANT_WORK:-build/invariant}" "$@"

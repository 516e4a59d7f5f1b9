#!/bin/sh
# The demo: installs what the build needs, builds mcd_main, then runs it against the
# local configuration server and simulated meters (a VKT-7 on one line; an MTR-06, a
# TM-3E and a second MTR-06 on another; a TSRV-024M and a MAGIKA gateway on a Modbus
# line each), files everything under ./demo-root and shows what was filed. Run as root on Debian 12: sh scripts/demo.sh
set -e
cd "$(dirname "$0")/.."
sh scripts/setup.sh
mkdir -p build
echo "Building mcd_main (build/demo) ..."
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DMCD_BUILD_BENCH=OFF >build/demo-cmake.log 2>&1 ||
  { cat build/demo-cmake.log; exit 1; }
cmake --build build/demo --target mcd_main -j "$(nproc)" >build/demo-build.log 2>&1 ||
  { tail -n 40 build/demo-build.log; exit 1; }
exec python3 tools/demo.py --binary build/demo/mcd_main --root demo-root "$@"

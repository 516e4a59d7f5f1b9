#!/bin/sh
# Makes the Debian packages of mcd_main.
#
#   sh scripts/package.sh            amd64 (this machine) and armhf (cross-built)
#   sh scripts/package.sh amd64      only this machine's architecture
#   sh scripts/package.sh armhf      only the controller's
#
# The packages land in build/packages/: mcd-main_<version>_<arch>.deb. Each installs
# /usr/bin/mcd_main, the systemd template unit mcd_main@.service and
# /etc/default/mcd_main, and creates /mnt/storage. scripts/check-package.sh installs
# one in a clean Debian root and runs it.
set -e
cd "$(dirname "$0")/.."
TOP=$(pwd)
ARCHES=${*:-"amd64 armhf"}
OUT=$TOP/build/packages
mkdir -p "$OUT"
JOBS=${MCD_PACKAGE_JOBS:-2}

for arch in $ARCHES; do
  case $arch in
    amd64|native)
      scripts/setup.sh
      dir=$TOP/build/pkg-native
      echo "=== package.sh: $(dpkg --print-architecture) package in $dir"
      cmake -S "$TOP" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMCD_WERROR=ON \
        -DMCD_BUILD_TESTS=OFF -DMCD_BUILD_BENCH=OFF -DMCD_BUILD_FUZZERS=OFF >/dev/null
      cmake --build "$dir" -j "$JOBS" --target mcd_main
      ;;
    armhf)
      dir=$TOP/build/armhf-pkg
      echo "=== package.sh: armhf package in $dir"
      scripts/cross-armhf.sh --no-tests
      ;;
    *) echo "package.sh: unknown architecture $arch (amd64 or armhf)" >&2; exit 2 ;;
  esac
  rm -f "$dir"/*.deb
  (cd "$dir" && cpack -G DEB >/dev/null)
  dpkg-deb -I "$dir"/*.deb | grep -E '^ (Package|Version|Architecture|Depends):'
  cp "$dir"/*.deb "$OUT/"
done
ls -l "$OUT"

#!/bin/sh
# Builds the daemon and its tests and runs them: a plain build with warnings as
# errors, then the same suite under AddressSanitizer + UBSan and under ThreadSanitizer.
# MCD_TEST_BUILDS may name a subset: "plain asan tsan".
set -e
cd "$(dirname "$0")/.."
scripts/setup.sh
JOBS=$(nproc)
BUILDS=${MCD_TEST_BUILDS:-"plain asan tsan"}
for b in $BUILDS; do
  case $b in
    plain) opts="-DMCD_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo" ;;
    # sanitizer builds at -O1 with line tables only: quicker to compile, still fast
    # enough to run, and reports still name files and lines
    asan) opts="-DMCD_WERROR=ON -DMCD_SANITIZE=address -DCMAKE_BUILD_TYPE=Sanitize" ;;
    tsan) opts="-DMCD_WERROR=ON -DMCD_SANITIZE=thread -DCMAKE_BUILD_TYPE=Sanitize" ;;
    *) echo "unknown build $b" >&2; exit 2 ;;
  esac
  echo "=== $b build ==="
  cmake -S . -B "build/$b" -DCMAKE_CXX_FLAGS_SANITIZE="-O1 -g1" -DCMAKE_C_FLAGS_SANITIZE="-O1 -g1" \
    -DMCD_BUILD_BENCH=OFF $opts >/dev/null
  cmake --build "build/$b" -j "$JOBS"
  echo "=== $b tests ==="
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "build/$b" -j "$((JOBS * 2))" --output-on-failure
done

#!/bin/sh
# Installs every Debian package that the build, the tests, the fuzzers and the demo need.
set -e
if [ "$(id -u)" != 0 ]; then
  echo "setup.sh: run as root (it installs Debian packages)" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
PACKAGES="build-essential cmake pkg-config libjsoncpp-dev libevent-dev libmodbus-dev libsystemd-dev \
  libgtest-dev libgmock-dev python3 clang libclang-rt-14-dev"
missing=""
for p in $PACKAGES; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends $missing
fi

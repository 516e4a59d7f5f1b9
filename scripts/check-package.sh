#!/bin/sh
# Installs a package made by scripts/package.sh in a clean Debian 12 root and runs it.
#
#   sh scripts/check-package.sh build/packages/mcd-main_<version>_amd64.deb
#   sh scripts/check-package.sh build/packages/mcd-main_<version>_armhf.deb
#
# First lintian (installed when missing) must find no error and no warning.
# This machine's architecture: a minimal root made once with debootstrap
# (build/root-bookworm-<arch>, with the run-time libraries and systemd) is copied to a
# fresh folder, the package is installed there with dpkg -i inside chroot, and:
#   - `mcd_main -r` prints the version; the user mcd-main exists, in group dialout;
#   - /mnt/storage exists, writable for the group mcd-main; the unit passes
#     `systemd-analyze verify` and `systemd-analyze security` rates it 4.0 or better;
#   - with a meter configured (/etc/mcd_main/line1.conf: MCD_ARGS="-i 12", meter 12 on
#     the local configuration server, tools/config_server.py), the unit's command line
#     runs as the unit's user, files the meter's tree, and ends with status 0 within
#     10 s of SIGTERM;
#   - installing the package again (an upgrade) keeps the user and the configuration;
#   - purging removes the program and /etc/default/mcd_main, keeps /mnt/storage.
# armhf on another machine: chroot cannot run ARM programs without binfmt, so the
# package is unpacked into a copy of the armhf sysroot (Debian's armhf libraries,
# scripts/cross-armhf.sh), the same checks of the binary run through qemu-arm, and
# apt resolves the package's Depends against Debian's armhf archive (simulated).
# Needs root (debootstrap, chroot).
set -e
cd "$(dirname "$0")/.."
TOP=$(pwd)
DEB=$(readlink -f "$1")
[ -f "$DEB" ] || { echo "usage: $0 <package.deb>" >&2; exit 2; }
ARCH=$(dpkg-deb -f "$DEB" Architecture)
VERSION=$(dpkg-deb -f "$DEB" Version)
HOSTARCH=$(dpkg --print-architecture)
SUITE=bookworm
MIRROR=${MCD_DEBIAN_MIRROR:-http://deb.debian.org/debian}
fail() { echo "check-package.sh: FAILED: $*" >&2; exit 1; }
ok() { echo "check-package.sh: ok: $*"; }

# Starts the configuration server on a free loopback port; sets SERVER_PID and PORT.
start_server() {
  cfg=$1/mcd-check-config.json
  echo '{"meters": {"12": {"manufacturer": "none", "period_current": "20", "port_params": {"name": "/dev/null"}}}}' > "$cfg"
  PORT=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  python3 "$TOP/tools/config_server.py" --port "$PORT" --config "$cfg" &
  SERVER_PID=$!
  i=0
  until python3 -c 'import socket,sys; socket.create_connection(("127.0.0.1",int(sys.argv[1])),1)' "$PORT" 2>/dev/null; do
    i=$((i + 1)); [ $i -lt 100 ] || fail "configuration server did not start"; sleep 0.1
  done
}

# Runs "$@" (the daemon's command line) in the background, waits until it reports the
# end of set-up, sends SIGTERM and expects exit status 0.
run_and_stop() {
  log=$1; shift
  "$@" > "$log" 2>&1 &
  pid=$!
  i=0
  until grep -q "supervision begins" "$log"; do
    i=$((i + 1))
    if [ $i -ge 300 ] || ! kill -0 "$pid" 2>/dev/null; then
      kill -KILL "$pid" 2>/dev/null || true
      cat "$log"; fail "the daemon did not finish its set-up"
    fi
    sleep 0.1
  done
  started=$(date +%s)
  kill -TERM "$pid"
  status=0
  wait "$pid" || status=$?
  [ $(($(date +%s) - started)) -le 10 ] || fail "more than 10 s from SIGTERM to the end"
  grep -q "shutdown done" "$log" || { cat "$log"; fail "no orderly shutdown"; }
  [ "$status" = 0 ] || { cat "$log"; fail "exit status $status after SIGTERM"; }
}

cleanup() { [ -n "$SERVER_PID" ] && kill "$SERVER_PID" 2>/dev/null || true; }
trap cleanup EXIT

command -v lintian >/dev/null || { apt-get update -qq; apt-get install -y -qq --no-install-recommends lintian; }
lintian --fail-on error,warning "$DEB" || fail "lintian"
ok "lintian: no error, no warning"

if [ "$ARCH" = "$HOSTARCH" ]; then
  [ "$(id -u)" = 0 ] || fail "run as root (debootstrap, chroot)"
  command -v debootstrap >/dev/null || { apt-get update -qq; apt-get install -y -qq debootstrap; }
  BASE=$TOP/build/root-$SUITE-$ARCH
  if [ ! -f "$BASE/.mcd-base-done" ]; then
    rm -rf "$BASE"
    debootstrap --variant=minbase --include=systemd,libjsoncpp25,libevent-core-2.1-7,libevent-extra-2.1-7,libmodbus5 \
      "$SUITE" "$BASE" "$MIRROR"
    touch "$BASE/.mcd-base-done"
  fi
  ROOT=$TOP/build/check-root-$ARCH
  rm -rf "$ROOT"
  cp -a "$BASE" "$ROOT"
  cp "$DEB" "$ROOT/tmp/package.deb"
  chroot "$ROOT" dpkg -i /tmp/package.deb || fail "dpkg -i"
  ok "dpkg -i $(basename "$DEB") in a clean $SUITE root"
  out=$(chroot "$ROOT" /usr/bin/mcd_main -r)
  echo "$out"
  echo "$out" | grep -q "^version $VERSION " || fail "mcd_main -r printed '$out'"
  ok "mcd_main -r"
  chroot "$ROOT" id -nG mcd-main | grep -qw dialout || fail "user mcd-main missing or not in dialout"
  ok "system user mcd-main in group dialout"
  [ -d "$ROOT/mnt/storage" ] || fail "/mnt/storage missing"
  [ "$(chroot "$ROOT" stat -c %G /mnt/storage)" = mcd-main ] && [ -n "$(find "$ROOT/mnt/storage" -maxdepth 0 -perm -g+w)" ] \
    || fail "/mnt/storage not writable for the group mcd-main"
  ok "/mnt/storage created, writable for mcd-main"
  chroot "$ROOT" systemd-analyze verify --man=no mcd_main@12.service || fail "unit does not verify"
  ok "systemd-analyze verify mcd_main@12.service"
  exposure=$(chroot "$ROOT" systemd-analyze security --offline=yes /lib/systemd/system/mcd_main@.service 2>&1 \
    | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
  [ -n "$exposure" ] && awk -v e="$exposure" 'BEGIN { exit !(e <= 4.0) }' || fail "exposure '$exposure' above 4.0"
  ok "systemd-analyze security: exposure $exposure"
  # A meter configured for one line; the unit's command line for instance line1, as
  # systemd expands it, run as the unit's user.
  echo 'MCD_ARGS="-i 12"' > "$ROOT/etc/mcd_main/line1.conf"
  start_server "$ROOT/tmp"
  run_and_stop "$ROOT/tmp/run.log" chroot --userspec=mcd-main:mcd-main "$ROOT" \
    env MCD_SERVER_URL="http://127.0.0.1:$PORT/" /usr/bin/mcd_main -e -i 12
  [ "$(chroot "$ROOT" stat -c %U /mnt/storage/12)" = mcd-main ] || fail "meter tree not made by mcd-main"
  ok "mcd_main -i 12 as mcd-main: set up, meter tree made, status 0 within 10 s of SIGTERM"
  chroot "$ROOT" dpkg -i /tmp/package.deb >/dev/null || fail "dpkg -i over the installed package"
  [ -f "$ROOT/etc/mcd_main/line1.conf" ] && chroot "$ROOT" id mcd-main >/dev/null || fail "upgrade lost the set-up"
  ok "upgrade keeps the user and the line configuration"
  chroot "$ROOT" dpkg --purge mcd-main >/dev/null || fail "dpkg --purge"
  [ ! -e "$ROOT/usr/bin/mcd_main" ] || fail "binary left after purge"
  [ ! -e "$ROOT/etc/default/mcd_main" ] || fail "/etc/default/mcd_main left after purge"
  [ -d "$ROOT/mnt/storage/12" ] || fail "purge took /mnt/storage"
  ok "dpkg --purge removes the program and its defaults, keeps /mnt/storage"
elif [ "$ARCH" = armhf ]; then
  SYSROOT=$TOP/build/sysroot-armhf
  [ -f "$SYSROOT/.mcd-sysroot-packages" ] || scripts/cross-armhf.sh --sysroot-only
  ROOT=$TOP/build/check-root-armhf
  rm -rf "$ROOT"
  cp -a "$SYSROOT" "$ROOT"
  dpkg-deb -x "$DEB" "$ROOT"
  mkdir -p "$ROOT/tmp"
  file "$ROOT/usr/bin/mcd_main"
  out=$(qemu-arm -L "$ROOT" "$ROOT/usr/bin/mcd_main" -r)
  echo "$out"
  echo "$out" | grep -q "^version $VERSION " || fail "mcd_main -r printed '$out'"
  ok "armhf mcd_main -r under qemu-arm"
  start_server "$ROOT/tmp"
  run_and_stop "$ROOT/tmp/run.log" env MCD_SERVER_URL="http://127.0.0.1:$PORT/" \
    MCD_TMP_DIR="$ROOT/tmp/" MCD_STORAGE_DIR="$ROOT/mnt/storage/" \
    qemu-arm -L "$ROOT" "$ROOT/usr/bin/mcd_main" -e -i 12
  ok "armhf mcd_main -i 12 starts and stops with status 0 on SIGTERM under qemu-arm"
  APT_CONFIG=$TOP/build/apt-armhf/apt.conf apt-get install -s "$DEB" > "$ROOT/tmp/apt.log" 2>&1 \
    || { cat "$ROOT/tmp/apt.log"; fail "Depends do not resolve in Debian armhf"; }
  grep -q '^Inst mcd-main ' "$ROOT/tmp/apt.log" || { cat "$ROOT/tmp/apt.log"; fail "apt would not install it"; }
  ok "Depends resolve against Debian $SUITE armhf ($(grep -c '^Inst ' "$ROOT/tmp/apt.log") packages with dependencies)"
else
  fail "no check for architecture $ARCH on $HOSTARCH"
fi

#!/usr/bin/env bash
# Cross-builds libquarry, the tool and the tests for armhf (the phone's
# 32-bit ARM) and runs the unit and scripted-peer tests under qemu-arm.
# Real-server and leak tests are left to the host's run.
#
# OpenSSL comes from Debian's armhf packages, fetched with a private apt
# state and unpacked into the build tree (the host's dpkg never learns of
# armhf); GoogleTest is built from /usr/src/googletest into the same
# sysroot. Both are kept between runs.
#
#   tests/arm/run.sh [BUILD_DIR]      (default: build-arm)
set -euo pipefail
SRC=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=$(realpath -m "${1:-$SRC/build-arm}")
JOBS=$(nproc 2>/dev/null || echo 2)
SYSROOT=$BUILD/sysroot
APT_DIR=$BUILD/apt
TOOLCHAIN=$SRC/cmake/armhf-toolchain.cmake
ARM_PACKAGES=(libssl3 libssl-dev)
# Tests that need real servers, valgrind-length loops or a host compiler.
EXCLUDED_LABELS='real|leak|install'
export QUARRY_ARM_SYSROOT=$SYSROOT

log() { echo "arm: $*"; }
die() { echo "arm: $*" >&2; exit 1; }

for tool in arm-linux-gnueabihf-gcc arm-linux-gnueabihf-g++; do
  command -v "$tool" > /dev/null || die "$tool missing (tests/servers/install-deps.sh installs it)"
done
command -v qemu-arm > /dev/null || command -v qemu-arm-static > /dev/null \
  || die "qemu-arm missing (tests/servers/install-deps.sh installs it)"

# Ninja builds all the wanted targets as one graph; make would take them
# one after another.
generator=()
command -v ninja > /dev/null && generator=(-G Ninja)

launcher=()
if command -v ccache > /dev/null; then
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$SRC} CCACHE_NOHASHDIR=1
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

# armhf OpenSSL: apt-get download with its own lists, status and cache.
fetch_openssl() {
  [ -e "$SYSROOT/usr/lib/arm-linux-gnueabihf/libssl.so" ] && return 0
  log "fetching ${ARM_PACKAGES[*]} for armhf"
  mkdir -p "$APT_DIR/lists/partial" "$APT_DIR/cache/archives/partial" "$APT_DIR/debs"
  : > "$APT_DIR/status"
  local opts=(-o APT::Architecture=armhf -o APT::Architectures=armhf
              -o "Dir::State::Lists=$APT_DIR/lists" -o "Dir::Cache=$APT_DIR/cache"
              -o "Dir::State::status=$APT_DIR/status")
  # One index of a mirror in mid-sync may fail; the others are enough.
  apt-get "${opts[@]}" update > "$APT_DIR/update.log" 2>&1 || log "apt-get update incomplete, going on"
  (cd "$APT_DIR/debs" && apt-get "${opts[@]}" download "${ARM_PACKAGES[@]}") \
    || die "apt-get download ${ARM_PACKAGES[*]} failed"
  for deb in "$APT_DIR"/debs/*.deb; do dpkg-deb -x "$deb" "$SYSROOT"; done
}

# GoogleTest for armhf, installed into the sysroot.
build_googletest() {
  [ -e "$SYSROOT/usr/lib/cmake/GTest/GTestConfig.cmake" ] && return 0
  log "building GoogleTest for armhf"
  cmake -S /usr/src/googletest -B "$BUILD/googletest" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$SYSROOT/usr" "${launcher[@]}" \
    > "$BUILD/googletest.configure.log" 2>&1 || { cat "$BUILD/googletest.configure.log"; return 1; }
  cmake --build "$BUILD/googletest" -j"$JOBS" > "$BUILD/googletest.build.log" 2>&1 \
    || { cat "$BUILD/googletest.build.log"; return 1; }
  cmake --install "$BUILD/googletest" > /dev/null
}

mkdir -p "$BUILD"
fetch_openssl
build_googletest
log "configuring"
cmake -S "$SRC" -B "$BUILD/quarry" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARRY_WERROR=ON "${generator[@]}" "${launcher[@]}" \
  > "$BUILD/quarry.configure.log" 2>&1 || { cat "$BUILD/quarry.configure.log"; exit 1; }

# Only what the tests run here need: the targets named like those tests,
# and the libraries the scripted checks read.
mapfile -t tests < <(ctest --test-dir "$BUILD/quarry" -N -LE "$EXCLUDED_LABELS" \
  | sed -n 's/^ *Test *#[0-9]*: *//p')
mapfile -t targets < <(cmake --build "$BUILD/quarry" --target help \
  | sed -n -e 's/^\.\.\. \([^ ]*\).*/\1/p' -e 's/^\([A-Za-z0-9_]*\): phony$/\1/p')
wanted=(quarry quarry_static quarry_cli)
for t in "${tests[@]}"; do
  for target in "${targets[@]}"; do
    [ "$t" = "$target" ] && wanted+=("$t")
  done
done
log "building ${#wanted[@]} targets"
cmake --build "$BUILD/quarry" -j"$JOBS" --target "${wanted[@]}"

log "running ${#tests[@]} tests under qemu-arm"
ctest --test-dir "$BUILD/quarry" -LE "$EXCLUDED_LABELS" --output-on-failure -j"$JOBS"

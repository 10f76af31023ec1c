#!/usr/bin/env bash
# Installs a build into a temporary prefix, checks the layout, and builds and
# runs a tiny C program against it with pkg-config and with CMake.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR C_COMPILER CXX_COMPILER [EXTRA_FLAGS]
# EXTRA_FLAGS (for instance the sanitizers) go to every compile and link.
set -euo pipefail
BUILD=$1 SRC=$2 CC=$3 CXX=$4 EXTRA=${5:-}
WORK=$(mktemp -d /tmp/quarry-install.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
P=$WORK/prefix
fail() { echo "install test: $*" >&2; exit 1; }

cmake --install "$BUILD" --prefix "$P" > "$WORK/install.log" || { cat "$WORK/install.log"; fail "install failed"; }
PC=$(find "$P" -name quarry.pc)
[ -n "$PC" ] || fail "no quarry.pc"
LIBDIR=$(dirname "$(dirname "$PC")")
for f in include/quarry.h bin/quarry; do
  [ -f "$P/$f" ] || fail "missing $f"
done
[ ! -e "$P/include/quarry_internal.h" ] || fail "quarry_internal.h installed by default"
[ -f "$LIBDIR/libquarry.a" ] || fail "missing libquarry.a"
[ -f "$LIBDIR/libquarry.so.5.4.0" ] || fail "missing libquarry.so.5.4.0"
[ "$(readlink "$LIBDIR/libquarry.so.5")" = libquarry.so.5.4.0 ] || fail "libquarry.so.5 link"
[ "$(readlink "$LIBDIR/libquarry.so")" = libquarry.so.5 ] || fail "libquarry.so link"
for f in quarryConfig.cmake quarryConfigVersion.cmake quarryTargets.cmake; do
  [ -f "$LIBDIR/cmake/quarry/$f" ] || fail "missing cmake/quarry/$f"
done
"$P/bin/quarry" version | grep -q '^libquarry ' || fail "the installed tool does not run"
[ -f "$P/share/man/man1/quarry.1" ] || fail "missing share/man/man1/quarry.1"
if command -v man > /dev/null; then
  MANPATH=$P/share/man MANWIDTH=80 man quarry 2>/dev/null | grep -q 'EXIT STATUS' \
    || fail "man quarry does not show the installed page"
fi

cmake --install "$BUILD" --prefix "$P" --component internal > /dev/null
[ -f "$P/include/quarry_internal.h" ] || fail "component internal lacks quarry_internal.h"

echo "-- pkg-config"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
[ "$(pkg-config --modversion quarry)" = 5.4.0 ] || fail "pkg-config version"
# shellcheck disable=SC2046,SC2086
"$CC" $EXTRA "$SRC/tests/install/consumer/consumer.c" $(pkg-config --cflags --libs quarry) \
  -o "$WORK/pc_consumer"
LD_LIBRARY_PATH=$LIBDIR "$WORK/pc_consumer"

echo "-- CMake find_package(quarry)"
cmake -S "$SRC/tests/install/consumer" -B "$WORK/build" -DCMAKE_PREFIX_PATH="$P" \
  -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_C_FLAGS="$EXTRA" \
  -DCMAKE_CXX_FLAGS="$EXTRA" > "$WORK/configure.log" || { cat "$WORK/configure.log"; fail "configure"; }
cmake --build "$WORK/build" > "$WORK/build.log" || { cat "$WORK/build.log"; fail "build"; }
"$WORK/build/consumer"
"$WORK/build/consumer_static"
echo "install test: ok"

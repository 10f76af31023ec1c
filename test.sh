#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test twice: in a normal
# build and in an AddressSanitizer + UndefinedBehaviorSanitizer build.
set -uo pipefail
cd "$(dirname "$0")"

JOBS=$(nproc 2>/dev/null || echo 2)

tests/servers/install-deps.sh || { echo "installing dependencies failed" >&2; exit 1; }

build() {  # build DIR extra-cmake-args...
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARRY_WERROR=ON "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j"$JOBS"
}

# Real servers must be there: a missing one fails its test instead of skipping.
export QUARRY_REQUIRE_SERVERS=1

mkdir -p build build-asan
build build-asan -DQUARRY_SANITIZE=ON || exit 1
build build || exit 1

status=0
echo "=== tests under AddressSanitizer + UndefinedBehaviorSanitizer ==="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$JOBS" || status=1
echo "=== tests ==="
ctest --test-dir build --output-on-failure -j"$JOBS" || status=1
exit $status

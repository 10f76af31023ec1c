#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: in a normal build,
# in an AddressSanitizer + UndefinedBehaviorSanitizer build, the locking
# tests under ThreadSanitizer, the fuzz targets for a short fixed number of
# inputs, and the unit and scripted-peer tests cross-built for armhf under
# qemu-arm. Prints each stage's time at the end.
set -uo pipefail
cd "$(dirname "$0")"

JOBS=$(nproc 2>/dev/null || echo 2)
FUZZ_RUNS=${QUARRY_FUZZ_RUNS:-20000}
# Tests of the library's locking, run again under ThreadSanitizer.
TSAN_TESTS=(net_dns_concurrency_test concurrency_transfers_test core_log_concurrency_test lifecycle_options_concurrency_test)

# Real servers must be there: a missing one fails its test instead of skipping.
export QUARRY_REQUIRE_SERVERS=1

timings=()
status=0
# stage NAME COMMAND...: runs a stage, records its time and outcome.
stage() {
  local name=$1; shift
  local start=$SECONDS
  echo "=== $name ==="
  "$@"
  local rc=$?
  timings+=("$(printf '%-36s %5ds  %s' "$name" $((SECONDS - start)) "$([ $rc -eq 0 ] && echo ok || echo FAILED)")")
  [ $rc -eq 0 ] || status=1
  return $rc
}

report() {
  echo
  echo "=== stage times ==="
  printf '%s\n' "${timings[@]}"
  printf '%-36s %5ds\n' total "$SECONDS"
}
trap report EXIT

build() {  # build DIR extra-cmake-args...
  local dir=$1; shift
  mkdir -p "$dir"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARRY_WERROR=ON "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j"$JOBS"
}

run_sanitized_tests() {
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j"$JOBS"
}

run_tsan_tests() {
  mkdir -p build-tsan
  cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARRY_WERROR=ON -DQUARRY_TSAN=ON \
    >build-tsan.configure.log 2>&1 || { cat build-tsan.configure.log; return 1; }
  cmake --build build-tsan -j"$JOBS" --target "${TSAN_TESTS[@]}" || return 1
  local pattern
  pattern="^($(IFS='|'; echo "${TSAN_TESTS[*]}"))\$"
  TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan --output-on-failure -R "$pattern"
}

# ./test.sh --arm: only the armhf cross build and its tests under qemu.
if [ "${1:-}" = "--arm" ]; then
  stage "install dependencies" tests/servers/install-deps.sh || exit 1
  stage "armhf build and tests (qemu-arm)" tests/arm/run.sh
  exit $status
fi

stage "install dependencies" tests/servers/install-deps.sh || exit 1
stage "build (ASan+UBSan)" build build-asan -DQUARRY_SANITIZE=ON || exit 1
stage "build" build build || exit 1
stage "tests (ASan+UBSan)" run_sanitized_tests
stage "tests" ctest --test-dir build --output-on-failure -j"$JOBS"
stage "tests (ThreadSanitizer)" run_tsan_tests
stage "fuzz targets, $FUZZ_RUNS inputs each" fuzz/run.sh --runs "$FUZZ_RUNS"
stage "armhf build and tests (qemu-arm)" tests/arm/run.sh
exit $status

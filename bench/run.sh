#!/usr/bin/env bash
# Builds the benchmark program in Release mode and runs it. Not part of
# test.sh or CI: numbers depend on the machine and its load.
#
#   bench/run.sh                                  # the whole suite
#   bench/run.sh --benchmark_filter='BM_Log.*'    # extra flags go to quarry_bench
#
# QUARRY_BENCH_BUILD names the build directory (default build-bench).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${QUARRY_BENCH_BUILD:-build-bench}
jobs=$(nproc 2>/dev/null || echo 2)
if [ "$jobs" -gt 2 ]; then jobs=2; fi

mkdir -p "$build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQUARRY_BENCH=ON -DQUARRY_TESTS=OFF \
  -DQUARRY_WERROR=ON >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j"$jobs" --target quarry_bench
"$build/bench/quarry_bench" "$@"

#!/usr/bin/env bash
# Builds every libFuzzer target with clang and runs each one, either for a
# fixed number of inputs or for a number of seconds, starting from its seed
# corpus in fuzz/corpus/<target>/ (read only: new inputs go to a scratch
# directory). Prints inputs run and findings per target; exits 1 on any
# finding.
#
#   fuzz/run.sh --runs N       # each target N inputs (test.sh)
#   fuzz/run.sh --seconds S    # each target S seconds (fuzz.sh)
#
# QUARRY_FUZZ_BUILD names the build directory (default build-fuzz).
set -uo pipefail
cd "$(dirname "$0")/.."

limit=()
case "${1:-}" in
  --runs) limit=(-runs="${2:?}") ;;
  --seconds) limit=(-max_total_time="${2:?}") ;;
  *) echo "usage: fuzz/run.sh --runs N | --seconds S" >&2; exit 2 ;;
esac

build=${QUARRY_FUZZ_BUILD:-build-fuzz}
jobs=$(nproc 2>/dev/null || echo 2)
mkdir -p "$build"
CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQUARRY_FUZZ=ON -DQUARRY_TESTS=OFF -DQUARRY_WERROR=ON >"$build.configure.log" 2>&1 \
  || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j"$jobs" || exit 1

scratch=$(mktemp -d /tmp/quarry-fuzz.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
status=0
printf '%-24s %12s %9s\n' target inputs findings
for exe in "$build"/fuzz/*_fuzz; do
  [ -x "$exe" ] || continue
  name=$(basename "$exe")
  seeds=fuzz/corpus/$name
  mkdir -p "$scratch/$name" "$scratch/$name.artifacts"
  corpora=("$scratch/$name")
  [ -d "$seeds" ] && corpora+=("$seeds")
  log=$scratch/$name.log
  "$exe" "${limit[@]}" -artifact_prefix="$scratch/$name.artifacts/" "${corpora[@]}" >"$log" 2>&1
  rc=$?
  runs=$(grep -oE 'Done [0-9]+ runs' "$log" | grep -oE '[0-9]+' | tail -1)
  findings=$(find "$scratch/$name.artifacts" -type f | wc -l)
  if [ $rc -ne 0 ] || [ "$findings" -ne 0 ]; then
    status=1
    [ "$findings" -eq 0 ] && findings=1
    tail -40 "$log"
    mkdir -p fuzz-findings && cp -r "$scratch/$name.artifacts" "fuzz-findings/$name" 2>/dev/null
  fi
  printf '%-24s %12s %9s\n' "$name" "${runs:-?}" "$findings"
done
exit $status

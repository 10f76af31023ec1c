#!/usr/bin/env bash
# Installs what is missing, builds, and shows the library at work through
# the quarry command-line tool.
set -euo pipefail
cd "$(dirname "$0")"

tests/servers/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target quarry_cli >/dev/null

Q=build/tools/quarry
echo "== $($Q version)"
for code in -3 -9 -12 400; do
  printf '== result %4s: %s\n' "$code" "$($Q error "$code")"
done

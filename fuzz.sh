#!/usr/bin/env bash
# Long fuzzing runs: every libFuzzer target for SECONDS seconds (default
# 300), after installing what is missing. Prints inputs run and findings
# per target; crashing inputs are kept in fuzz-findings/.
set -uo pipefail
cd "$(dirname "$0")"
tests/servers/install-deps.sh || { echo "installing dependencies failed" >&2; exit 1; }
exec fuzz/run.sh --seconds "${1:-300}"

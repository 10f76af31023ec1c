#!/usr/bin/env bash
# What libquarry costs a phone besides time: text size and the shared
# objects it needs, beside libcurl's, and the peak heap (valgrind massif)
# of one 2 MiB download from loopback nginx by a program linking only
# libquarry and by one linking only libcurl, with a program that links
# OpenSSL and does nothing as the baseline.
#
#   bench/footprint.sh [BUILD_DIR]     (default build-bench; run as root)
#
# BUILD_DIR must hold the Release build of the bench targets (./bench.sh
# makes it).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-bench}
lib=$build/libquarry.so
# awk reads the whole list: stopping early could leave ldconfig with a
# broken pipe, which pipefail would turn into a silent exit.
curl_lib=$(ldconfig -p | awk '/libcurl\.so\.4 / && !found {print $NF; found = 1}')
for f in "$lib" "$build/bench/fetch_quarry" "$build/bench/fetch_curl" "$build/bench/openssl_only"; do
  [ -e "$f" ] || { echo "missing $f: build the bench targets first (./bench.sh)" >&2; exit 1; }
done

needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' '; }
text() { size "$1" | awk 'NR == 2 {print $1}'; }

q_text=$(text "$lib")
c_text=$(text "$curl_lib")
echo "## Footprint ($(date -u +%Y-%m-%d), $(uname -m), $(nproc) cores)"
echo
echo "| | libquarry | libcurl ($(basename "$(readlink -f "$curl_lib")")) |"
echo "|---|---|---|"
echo "| text (size) | $q_text B | $c_text B (ratio $(awk "BEGIN {printf \"%.2f\", $q_text / $c_text}")) |"
echo "| NEEDED | $(needed "$lib")| $(needed "$curl_lib" | wc -w) libraries |"

# Free loopback ports for nginx.
ports=$(python3 -c '
import socket
s = [socket.socket() for _ in range(3)]
for x in s: x.bind(("127.0.0.1", 0))
print(" ".join(str(x.getsockname()[1]) for x in s))')
read -r http https mtls <<<"$ports"
dir=$(mktemp -d /tmp/quarry-footprint-XXXXXX)
out=$(mktemp -d /tmp/quarry-footprint-out-XXXXXX)
cleanup() {
  tests/servers/nginx.sh stop "$dir" >/dev/null 2>&1 || true
  rm -rf "$dir" "$out"
}
trap cleanup EXIT
tests/servers/nginx.sh start "$dir" "$http" "$https" "$mtls" >"$out/nginx.log" 2>&1 ||
  { cat "$out/nginx.log" >&2; exit 1; }
head -c 2097152 /dev/urandom >"$dir/www/files/2M.bin"
url=http://127.0.0.1:$http/files/2M.bin

# Peak of heap plus allocator overhead over massif's snapshots, in bytes.
peak() {
  local name=$1
  shift
  valgrind -q --tool=massif --massif-out-file="$out/$name.massif" "$@" >/dev/null
  awk -F= '/^mem_heap_B/ {h = $2} /^mem_heap_extra_B/ {t = h + $2; if (t > m) m = t}
           END {print m + 0}' "$out/$name.massif"
}
base=$(peak openssl_only "$build/bench/openssl_only")
base_init=$(peak openssl_init "$build/bench/openssl_only" init)
q=$(peak quarry "$build/bench/fetch_quarry" "$url" "$out/q.bin")
c=$(peak curl "$build/bench/fetch_curl" "$url" "$out/c.bin")
cmp -s "$out/q.bin" "$dir/www/files/2M.bin" || { echo "libquarry's copy differs" >&2; exit 1; }
cmp -s "$out/c.bin" "$dir/www/files/2M.bin" || { echo "libcurl's copy differs" >&2; exit 1; }
syslog=$([ -S /dev/log ] && echo "a listener on /dev/log" || echo "no /dev/log")
echo "| peak heap, one 2 MiB download ($syslog) | $q B | $c B (ratio $(awk "BEGIN {printf \"%.2f\", $q / $c}")) |"
echo "| above a program linking OpenSSL and doing nothing ($base B) | $((q - base)) B | $((c - base)) B |"
echo "| above one that also initialises OpenSSL as dl_config_init does ($base_init B) | $((q - base_init)) B | |"

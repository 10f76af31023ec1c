#!/usr/bin/env bash
# libquarry beside libcurl: builds the Release benchmarks and prints the
# side-by-side table (bench/compare) and the footprint (bench/footprint.sh),
# first with no system log listener, then with one on /dev/log as on the
# phone (in a private mount namespace, so the machine's /dev is not
# touched). Installs what it needs; run as root. Not part of ./test.sh.
#
#   ./bench.sh [--pairs N]      (compare's options are passed on)
set -euo pipefail
cd "$(dirname "$0")"
tests/servers/install-deps.sh >/dev/null

build=${QUARRY_BENCH_BUILD:-build-bench}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQUARRY_BENCH=ON -DQUARRY_TESTS=OFF \
  -DQUARRY_WERROR=ON >"$build.configure.log" 2>&1 || { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j2 --target compare fetch_quarry fetch_curl openssl_only >/dev/null

# Runs "$@" with a datagram listener on /dev/log that discards what it
# gets, the way the phone's syslog daemon takes the library's lines.
with_syslog_listener() {
  unshare -m bash -s "$@" <<'EOS'
set -euo pipefail
mount --make-rprivate /
old=$(mktemp -d /tmp/quarry-bench-dev-XXXXXX)
mount --bind /dev "$old"
mount -t tmpfs -o size=1m,mode=755 tmpfs /dev
for node in null zero full random urandom tty; do
  touch "/dev/$node"
  mount --bind "$old/$node" "/dev/$node"
done
ln -s /proc/self/fd /dev/fd
ln -s /proc/self/fd/0 /dev/stdin
ln -s /proc/self/fd/1 /dev/stdout
ln -s /proc/self/fd/2 /dev/stderr
mkdir -p /dev/shm /dev/pts
mount --bind "$old/shm" /dev/shm
python3 -c '
import os, socket
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind("/dev/log")
os.write(1, b"ready\n")
while True:
    s.recv(65536)
' > /dev/null &
listener=$!
for _ in $(seq 50); do [ -S /dev/log ] && break; sleep 0.1; done
"$@"
kill "$listener"
EOS
}

echo "# libquarry and libcurl side by side ($(date -u '+%Y-%m-%d %H:%M UTC'), $(uname -m)," \
  "$(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg))"
echo
echo "## Without a system log listener"
echo
"$build/bench/compare" "$@"
echo
bench/footprint.sh "$build"
echo
echo "## With a listener on /dev/log"
echo
with_syslog_listener "$build/bench/compare" "$@"
echo
with_syslog_listener bench/footprint.sh "$build"

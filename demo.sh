#!/usr/bin/env bash
# Installs what is missing, builds, starts a local nginx on loopback and
# fetches and sends files through the quarry command-line tool.
set -euo pipefail
cd "$(dirname "$0")"
ROOT=$PWD

tests/servers/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target quarry_cli >/dev/null
Q=$ROOT/build/tools/quarry

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

WORK=$(mktemp -d /tmp/quarry-demo.XXXXXX)
chmod 755 "$WORK"  # the server's workers run as nobody
SERVER=$WORK/nginx
cleanup() {
  tests/servers/nginx.sh stop "$SERVER" >/dev/null 2>&1 || true
  rm -rf "$WORK"
}
trap cleanup EXIT

HTTP_PORT=$(free_port)
tests/servers/nginx.sh start "$SERVER" "$HTTP_PORT" "$(free_port)" "$(free_port)" >/dev/null
BASE=http://127.0.0.1:$HTTP_PORT

step() { printf '\n== %s\n$ %s\n' "$1" "${*:2}"; "${@:2}"; }

echo "libquarry demo: $($Q version), nginx on 127.0.0.1:$HTTP_PORT"

step "stream a file to standard output" \
  "$Q" get "$BASE/files/hello.txt"

step "download a 1 MiB file (the size limit raised to 4 MiB)" \
  "$Q" get "$BASE/files/1M.bin" -o "$WORK/1M.bin" --set max_file_size=4194304
cmp "$SERVER/www/files/1M.bin" "$WORK/1M.bin" && echo "identical to the server's copy"

step "follow a redirect" \
  "$Q" get "$BASE/r301" -o "$WORK/redirected.txt"
cat "$WORK/redirected.txt"

step "Basic authentication" \
  "$Q" get "$BASE/private/secret.txt" --user user1 --password pass1

printf 'uploaded by quarry at %s\n' "$(date -u +%FT%TZ)" > "$WORK/note.txt"
step "upload by PUT (WebDAV)" \
  "$Q" put "$WORK/note.txt" "$BASE/upload/note.txt" --put
step "fetch the upload back" \
  "$Q" get "$BASE/upload/note.txt"

printf '\n== a missing file is reported with its result code\n$ %s\n' "$Q get $BASE/files/missing.txt"
"$Q" get "$BASE/files/missing.txt" -o "$WORK/missing.txt" || echo "(exit status $?)"

# Distinctive ring: a G.711 mu-law WAV made by sox, fetched by name (127.0.0.1
# would only carry a ring name) into /tmp/<md5 of the URL>.wav; the second call
# finds it there and sends nothing.
RING_URL=http://localhost:$HTTP_PORT/files/ring-$$.wav
RING_CACHE=/tmp/$(printf %s "$RING_URL" | md5sum | cut -c1-32).wav
trap 'rm -f "$RING_CACHE"; cleanup' EXIT
sox -n -r 8000 -c 1 -e mu-law "$SERVER/www/files/ring-$$.wav" synth 1 sine 440
requests() {
  sleep 0.2  # nginx logs a request once its response is out
  echo "requests for the file so far: $(grep -c "GET /files/ring-$$.wav " "$SERVER/logs/access.log")"
}
step "distinctive ring: fetch the WAV file (cached as $RING_CACHE)" \
  "$Q" ring "$RING_URL" Bellcore-dr2
requests
step "distinctive ring: the second call is a cache hit" \
  "$Q" ring "$RING_URL" Bellcore-dr2
requests
step "distinctive ring by name only" \
  "$Q" ring "" Bellcore-dr2

echo
echo "demo finished"

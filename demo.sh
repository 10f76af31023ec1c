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
HTTPS_PORT=$(free_port)
tests/servers/nginx.sh start "$SERVER" "$HTTP_PORT" "$HTTPS_PORT" "$(free_port)" >/dev/null
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

step "https download, verified against the demo CA (the default trust is /etc/ssl/certs)" \
  "$Q" get "https://localhost:$HTTPS_PORT/whoami" --set ssl_ca_path="$SERVER/pki/cadir"
step "https with a client certificate" \
  "$Q" get "https://localhost:$HTTPS_PORT/whoami" --set ssl_ca_path="$SERVER/pki/cadir" \
  --cert "$SERVER/pki/client.pem"
printf '\n== the demo CA is not in the system trust store, so by default the server is refused\n$ %s\n' \
  "$Q get https://localhost:$HTTPS_PORT/files/hello.txt"
"$Q" get "https://localhost:$HTTPS_PORT/files/hello.txt" || echo "(exit status $?)"
step "--insecure skips the checks" \
  "$Q" get "https://localhost:$HTTPS_PORT/files/hello.txt" --insecure

printf '\n== a missing file is reported with its result code\n$ %s\n' "$Q get $BASE/files/missing.txt"
"$Q" get "$BASE/files/missing.txt" -o "$WORK/missing.txt" || echo "(exit status $?)"

TRUST=$WORK/trust
step "install the server's CA into a trusted CA store" \
  "$Q" cert install "$SERVER/pki/ca.crt" --trust "$TRUST"
step "list the store" \
  "$Q" cert list --trust "$TRUST"
step "verify the server's certificate against the store" \
  "$Q" cert verify "$SERVER/pki/server.crt" --trust "$TRUST"
step "https download trusting that store only" \
  "$Q" get "https://localhost:$HTTPS_PORT/files/hello.txt" --set ssl_ca_path="$TRUST/ca/"

echo
echo "demo finished"

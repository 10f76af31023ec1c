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
  tests/servers/tftpd.sh stop "$WORK/tftpd" >/dev/null 2>&1 || true
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

# TFTP: tftpd-hpa on loopback (block size 1432, uploads of new files).
TFTP_PORT=$(free_port)
TFTP6_PORT=$(free_port)
tests/servers/tftpd.sh start "$WORK/tftpd" "$TFTP_PORT" "$TFTP6_PORT" >/dev/null
TFTP=tftp://127.0.0.1:$TFTP_PORT
echo
echo "tftpd-hpa on udp 127.0.0.1:$TFTP_PORT and [::1]:$TFTP6_PORT"

step "TFTP: stream a file to standard output" \
  "$Q" get "$TFTP/hello.txt"

step "TFTP: a URL without a scheme is a TFTP one" \
  "$Q" get "127.0.0.1:$TFTP_PORT/hello.txt"

step "TFTP: download a 3 MB file with 1432-byte blocks" \
  "$Q" get "$TFTP/3M.bin" -o "$WORK/3M.bin" --set max_file_size=4194304
cmp "$WORK/tftpd/root/3M.bin" "$WORK/3M.bin" && echo "identical to the server's copy"

if [ "$(cat "$WORK/tftpd/ipv6")" = yes ]; then
  step "TFTP over IPv6" \
    "$Q" get "tftp://[::1]:$TFTP6_PORT/hello.txt" --set ipv6_enable=1
fi

head -c 100000 /dev/urandom > "$WORK/tftp-up.bin"
step "TFTP: upload into the server's directory (the local file's name is kept)" \
  "$Q" put "$WORK/tftp-up.bin" "$TFTP/"
# The server may still be writing the last block when the client is done.
for _ in 1 2 3 4 5 6 7 8 9 10; do
  cmp -s "$WORK/tftp-up.bin" "$WORK/tftpd/root/tftp-up.bin" && break
  sleep 0.1
done
cmp "$WORK/tftp-up.bin" "$WORK/tftpd/root/tftp-up.bin" && echo "stored identical"

SILENT=tftp://127.0.0.1:$(free_port)/x
printf '\n== TFTP: nothing answers (reported after 3 s)\n$ %s\n' "$Q get $SILENT -o $WORK/x"
"$Q" get "$SILENT" -o "$WORK/x" || echo "(exit status $?)"

echo
echo "demo finished"

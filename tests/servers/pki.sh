#!/bin/bash
# Makes a test PKI with the openssl CLI in DIR (once; an existing one is kept):
#   ca.crt/ca.key                 "Quarry Test CA"
#   server.crt/server.key         signed by the CA, SANs localhost, 127.0.0.1, ::1
#   client.crt/client.key         signed by the CA, CN phone-client, clientAuth
#   selfsigned.crt/selfsigned.key self-signed, CN localhost, SANs localhost, 127.0.0.1
#   chain.pem                     server.crt followed by ca.crt
# Usage: pki.sh DIR
set -eu
export PATH=/usr/bin:/bin:$PATH
DIR=${1:?usage: pki.sh DIR}
[ -s "$DIR/chain.pem" ] && exit 0
mkdir -p "$DIR"
chmod 755 "$DIR"
cd "$DIR"
umask 022

# Build into a scratch dir and move into place last, so a half-made PKI is
# never mistaken for a finished one.
WORK=$(mktemp -d "$DIR/.work.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
cd "$WORK"

key() { openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$1" 2> /dev/null; }

key ca.key
openssl req -x509 -new -key ca.key -out ca.crt -days 3650 -subj "/CN=Quarry Test CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign"

key server.key
openssl req -new -key server.key -out server.csr -subj "/CN=localhost"
printf '%s\n' "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1" "basicConstraints=CA:FALSE" \
  "keyUsage=critical,digitalSignature,keyEncipherment" "extendedKeyUsage=serverAuth" > server.ext
openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -set_serial 2 -days 825 \
  -extfile server.ext -out server.crt 2> /dev/null

key client.key
openssl req -new -key client.key -out client.csr -subj "/CN=phone-client"
printf '%s\n' "basicConstraints=CA:FALSE" "keyUsage=critical,digitalSignature" \
  "extendedKeyUsage=clientAuth" > client.ext
openssl x509 -req -in client.csr -CA ca.crt -CAkey ca.key -set_serial 3 -days 825 \
  -extfile client.ext -out client.crt 2> /dev/null

key selfsigned.key
openssl req -x509 -new -key selfsigned.key -out selfsigned.crt -days 365 -subj "/CN=localhost" \
  -addext "subjectAltName=DNS:localhost,IP:127.0.0.1"

cat server.crt ca.crt > chain.pem
# Servers read the keys after dropping to nobody.
chmod 644 ./*.key ./*.crt chain.pem
mv ca.key ca.crt server.key server.crt client.key client.crt selfsigned.key selfsigned.crt "$DIR"/
mv chain.pem "$DIR"/

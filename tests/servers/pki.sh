#!/bin/bash
# Makes a test PKI with the openssl CLI in DIR (once; an existing one is kept):
#   ca.crt/ca.key                 "Quarry Test CA"
#   server.crt/server.key         signed by the CA, SANs localhost, 127.0.0.1, ::1
#   client.crt/client.key         signed by the CA, CN phone-client, clientAuth
#   selfsigned.crt/selfsigned.key self-signed, CN localhost, SANs localhost, 127.0.0.1
#   chain.pem                     server.crt followed by ca.crt
#   (server.crt also names *.wild.test)
#   cnonly.crt/cnonly.key         signed by the CA, CN localhost, no subject alternative names
#   expired.crt/expired.key       signed by the CA, SANs as server.crt, valid 2020 only
#   client.pem                    client.crt and client.key in one file
#   client_enc.pem                client.crt and client.key encrypted (AES-256) with "phonepass"
#   client_eckey.pem              client.crt and an EC key of its own: a key of another
#                                 type than the certificate's
#   client_otherkey.pem           client.crt and another RSA key
#   cadir/                        ca.crt under its subject hash (<hash>.0), for CApath
# Usage: pki.sh DIR
set -eu
export PATH=/usr/bin:/bin:$PATH
DIR=${1:?usage: pki.sh DIR}
[ -s "$DIR/chain.pem" ] && [ -s "$DIR/client_otherkey.pem" ] && exit 0
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
printf '%s\n' "subjectAltName=DNS:localhost,DNS:*.wild.test,IP:127.0.0.1,IP:::1" "basicConstraints=CA:FALSE" \
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

key cnonly.key
openssl req -new -key cnonly.key -out cnonly.csr -subj "/CN=localhost"
printf '%s\n' "basicConstraints=CA:FALSE" "extendedKeyUsage=serverAuth" > cnonly.ext
openssl x509 -req -in cnonly.csr -CA ca.crt -CAkey ca.key -set_serial 4 -days 825 \
  -extfile cnonly.ext -out cnonly.crt 2> /dev/null

# "openssl ca" is the CLI's way to put the validity in the past.
key expired.key
openssl req -new -key expired.key -out expired.csr -subj "/CN=localhost"
mkdir db && touch db/index.txt && echo 05 > db/serial
printf '%s\n' "[ca]" "default_ca=test" "[test]" "database=db/index.txt" "serial=db/serial" \
  "new_certs_dir=db" "default_md=sha256" "policy=any" "[any]" "commonName=supplied" > ca.cnf
openssl ca -batch -config ca.cnf -cert ca.crt -keyfile ca.key -in expired.csr -out expired.crt \
  -startdate 20200101000000Z -enddate 20201231000000Z -notext -extfile server.ext 2> /dev/null

cat client.crt client.key > client.pem
openssl pkey -in client.key -aes256 -passout pass:phonepass -out client_enc.key
cat client.crt client_enc.key > client_enc.pem
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key 2> /dev/null
cat client.crt ec.key > client_eckey.pem
key other.key
cat client.crt other.key > client_otherkey.pem

mkdir cadir
cp ca.crt "cadir/$(openssl x509 -hash -noout -in ca.crt).0"

cat server.crt ca.crt > chain.pem
# Servers read the keys after dropping to nobody.
chmod 644 ./*.key ./*.crt ./*.pem cadir/*
chmod 755 cadir
rm -rf "$DIR/cadir"
mv ca.key ca.crt server.key server.crt client.key client.crt selfsigned.key selfsigned.crt "$DIR"/
mv cnonly.key cnonly.crt expired.key expired.crt client.pem client_enc.pem client_eckey.pem \
  cadir "$DIR"/
mv chain.pem "$DIR"/
mv client_otherkey.pem "$DIR"/

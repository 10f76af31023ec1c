#!/bin/bash
# openssl s_server peers on 127.0.0.1, one protocol version each, answering
# GET with a status page (-www), server certificate from the test PKI:
#   PORT10 TLS 1.0, PORT11 TLS 1.1, PORT12 TLS 1.2, PORT13 TLS 1.3
# All run with cipher list "DEFAULT:@SECLEVEL=0": TLS 1.0/1.1 fail with an
# internal_error alert without it (clients need security level 0 too).
# Usage: tls.sh start DIR PORT10 PORT11 PORT12 PORT13 | tls.sh stop DIR
# PKI_DIR names an existing test PKI; otherwise one is made in DIR/pki.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORTS=()
for i in 0 1 2 3; do
  PORTS+=("$(port_arg "${ARGS[$i]:-}" "tls #$i")") || exit
done

need_binaries openssl
prepare_dir "$DIR"
P=${PKI_DIR:-$DIR/pki}
"$SERVERS_DIR/pki.sh" "$P" || die "cannot make the PKI in $P"

VERSIONS=(tls1 tls1_1 tls1_2 tls1_3)
for i in 0 1 2 3; do
  v=${VERSIONS[$i]}
  spawn "s_server_$v" "$DIR/s_server_$v.log" openssl s_server -accept "127.0.0.1:${PORTS[$i]}" \
    -cert "$P/server.crt" -key "$P/server.key" "-$v" -cipher 'DEFAULT:@SECLEVEL=0' \
    -www -quiet < /dev/null
done
start_watchdog "$SERVERS_DIR/$(basename "$0")"
for i in 0 1 2 3; do
  v=${VERSIONS[$i]}
  wait_socket "s_server_$v" tcp "${PORTS[$i]}" "$DIR/s_server_$v.log" || fail_start
done

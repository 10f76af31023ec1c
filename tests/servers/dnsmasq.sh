#!/bin/bash
# dnsmasq answering from local data only, udp and tcp PORT on 127.0.0.1
# and ::1. Names under phone.test (anything else is REFUSED, unknown names
# there are NXDOMAIN):
#   prov.phone.test    A 192.0.2.10, AAAA 2001:db8::10
#   multi.phone.test   A 192.0.2.12 and 192.0.2.13
#   loop.phone.test    A 127.0.0.1, AAAA ::1
#   v6only.phone.test  AAAA 2001:db8::30
#   dual.phone.test    A 192.0.2.20, AAAA 2001:db8::20
#   alias.phone.test   CNAME prov; chain.phone.test CNAME alias
#   big.phone.test     40 A records 198.51.100.1-40 (truncated over UDP)
#   _sip._udp.phone.test SRV 10 100 5060 prov; txt.phone.test TXT "v=test1";
#   phone.test MX 10 prov
#   PTR for every address above (10.2.0.192.in-addr.arpa -> prov.phone.test)
# Usage: dnsmasq.sh start DIR PORT | dnsmasq.sh stop DIR
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORT=$(port_arg "${ARGS[0]:-}" dns) || exit

need_binaries dnsmasq
need_root
prepare_dir "$DIR"

{
  printf '%s\n' \
    '192.0.2.10      prov.phone.test' \
    '2001:db8::10    prov.phone.test' \
    '192.0.2.12      multi.phone.test' \
    '192.0.2.13      multi.phone.test' \
    '127.0.0.1       loop.phone.test' \
    '::1             loop.phone.test' \
    '2001:db8::30    v6only.phone.test'
  for i in $(seq 1 40); do echo "198.51.100.$i big.phone.test"; done
} > "$DIR/hosts"

ADDRESSES=127.0.0.1
[ "$(< "$DIR/ipv6")" = yes ] && ADDRESSES+=,::1

# No resolv.conf, no /etc/hosts: only the data above.
cat > "$DIR/dnsmasq.conf" << CONF
port=$PORT
listen-address=$ADDRESSES
bind-interfaces
no-resolv
no-poll
no-hosts
addn-hosts=$DIR/hosts
local=/phone.test/
domain-needed
local-ttl=60
user=nobody
group=nogroup
log-queries
log-facility=-
cname=alias.phone.test,prov.phone.test
cname=chain.phone.test,alias.phone.test
srv-host=_sip._udp.phone.test,prov.phone.test,5060,10,100
txt-record=txt.phone.test,"v=test1"
mx-host=phone.test,prov.phone.test,10
host-record=dual.phone.test,192.0.2.20,2001:db8::20
CONF
chmod 644 "$DIR/hosts" "$DIR/dnsmasq.conf"

LOG=$DIR/dnsmasq.log
dnsmasq --test -C "$DIR/dnsmasq.conf" >> "$LOG" 2>&1 || { show_log "$LOG"; fail_start; }
spawn dnsmasq "$LOG" dnsmasq --no-daemon -C "$DIR/dnsmasq.conf" < /dev/null
start_watchdog "$SERVERS_DIR/$(basename "$0")"
wait_socket dnsmasq udp "$PORT" "$LOG" || fail_start
wait_socket dnsmasq tcp "$PORT" "$LOG" || fail_start

#!/bin/bash
# tftpd-hpa on udp 127.0.0.1:PORT4 and [::1]:PORT6, one root DIR/root
# (hello.txt, 3M.bin), uploads of new files allowed (no new directories),
# blksize capped at 1468.
# Usage: tftpd.sh start DIR PORT4 PORT6 | tftpd.sh stop DIR
# A child that finished an upload lingers for the client's last packet and
# ignores TERM; nothing of its state is worth a clean exit.
STOP_SIGNAL=KILL
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORT4=$(port_arg "${ARGS[0]:-}" tftp) || exit
PORT6=$(port_arg "${ARGS[1]:-}" tftp6) || exit

need_binaries in.tftpd
need_root
prepare_dir "$DIR"

mkdir -p "$DIR/root"
printf 'tftp hello\n' > "$DIR/root/hello.txt"
head -c 3000000 /dev/urandom > "$DIR/root/3M.bin"
# The server runs as nobody, chrooted in the root, and writes uploads there.
chown -R nobody:nogroup "$DIR/root"

MAX_BLKSIZE=1468
# -L foreground, -s chroot, -c create files on upload.
spawn tftpd "$DIR/tftpd.log" in.tftpd -L -a "127.0.0.1:$PORT4" -u nobody -s -c \
  -B "$MAX_BLKSIZE" "$DIR/root" < /dev/null
if [ "$(< "$DIR/ipv6")" = yes ]; then
  spawn tftpd6 "$DIR/tftpd6.log" in.tftpd -L -a "[::1]:$PORT6" -u nobody -s -c \
    -B "$MAX_BLKSIZE" "$DIR/root" < /dev/null
fi
start_watchdog "$SERVERS_DIR/$(basename "$0")"
wait_socket tftpd udp "$PORT4" "$DIR/tftpd.log" || fail_start
if [ "$(< "$DIR/ipv6")" = yes ]; then
  wait_socket tftpd6 udp "$PORT6" "$DIR/tftpd6.log" || fail_start
fi

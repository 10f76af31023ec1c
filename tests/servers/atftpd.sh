#!/bin/bash
# atftpd (unpacked from its deb into /opt/extra-debs/root: it conflicts with
# tftpd-hpa) on udp 127.0.0.1:PORT, root DIR/root (hello.txt, 1M.bin),
# uploads of new files allowed. A second TFTP implementation: its OACK
# lists tsize before blksize.
# Usage: atftpd.sh start DIR PORT | atftpd.sh stop DIR
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORT=$(port_arg "${ARGS[0]:-}" tftp) || exit

ATFTPD=${ATFTPD:-/opt/extra-debs/root/usr/sbin/atftpd}
need_binaries "$ATFTPD"
need_root
prepare_dir "$DIR"

mkdir -p "$DIR/root"
printf 'atftp hello\n' > "$DIR/root/hello.txt"
head -c 1000000 /dev/urandom > "$DIR/root/1M.bin"
# The server drops to nobody and writes uploads into the root.
chown -R nobody:nogroup "$DIR/root"

# --logfile - : a log file would be opened after dropping privileges.
spawn atftpd "$DIR/atftpd.log" "$ATFTPD" --daemon --no-fork --bind-address 127.0.0.1 \
  --port "$PORT" --user nobody --group nogroup --logfile - -v5 "$DIR/root" < /dev/null
start_watchdog "$SERVERS_DIR/$(basename "$0")"
wait_socket atftpd udp "$PORT" "$DIR/atftpd.log" || fail_start

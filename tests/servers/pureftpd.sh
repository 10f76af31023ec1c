#!/bin/bash
# pure-ftpd (unpacked from its Debian package into /opt/extra-debs/root: it
# conflicts with vsftpd), one instance on 127.0.0.1:PORT4, passive ports
# PASV_MIN..PASV_MAX announced as 127.0.0.1, multi-line "220-" banner:
#   vuser       password purepass, a virtual user of a PureDB file running
#               as nobody, chrooted in DIR/home (pure.txt), full write access
# No anonymous logins.
# Usage: pureftpd.sh start DIR PORT4 PASV_MIN PASV_MAX | pureftpd.sh stop DIR
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORT4=$(port_arg "${ARGS[0]:-}" ftp) || exit
PASV_MIN=$(port_arg "${ARGS[1]:-}" pasv_min) || exit
PASV_MAX=$(port_arg "${ARGS[2]:-}" pasv_max) || exit

X=${PUREFTPD_ROOT:-/opt/extra-debs/root}/usr
need_binaries "$X/sbin/pure-ftpd" "$X/bin/pure-pw" openssl
need_root
prepare_dir "$DIR"

VUSER=vuser
VPASS=purepass
RUN_AS=nobody
RUN_GROUP=$(id -gn "$RUN_AS")

mkdir -p "$DIR"/{conf,logs,home}
printf 'pure file\n' > "$DIR/home/pure.txt"
chown -R "$RUN_AS:$RUN_GROUP" "$DIR/home"
(echo "$VPASS"; echo "$VPASS") |
  "$X/bin/pure-pw" useradd "$VUSER" -u "$RUN_AS" -g "$RUN_GROUP" -d "$DIR/home" \
    -f "$DIR/conf/pureftpd.passwd" -m -F "$DIR/conf/pureftpd.pdb" > "$DIR/logs/pure-pw.log" 2>&1 ||
  die "pure-pw failed: $(cat "$DIR/logs/pure-pw.log")"
# pure-pw hashes with a deliberately slow function (about a second of CPU per
# login); a SHA-512 crypt hash keeps the tests' logins fast.
HASH=$(openssl passwd -6 -salt quarrytest "$VPASS") || die "openssl passwd failed"
sed -i "s|^$VUSER:[^:]*:|$VUSER:$HASH:|" "$DIR/conf/pureftpd.passwd"
"$X/bin/pure-pw" mkdb "$DIR/conf/pureftpd.pdb" -f "$DIR/conf/pureftpd.passwd" \
  >> "$DIR/logs/pure-pw.log" 2>&1 || die "pure-pw mkdb failed"

# -E no anonymous, -A chroot everyone, -H no reverse look-ups, -j create
# the home when missing.
spawn pureftpd "$DIR/logs/stdout.log" "$X/sbin/pure-ftpd" -S "127.0.0.1,$PORT4" \
  -l "puredb:$DIR/conf/pureftpd.pdb" -p "$PASV_MIN:$PASV_MAX" -P 127.0.0.1 -E -A -H -j
start_watchdog "$SERVERS_DIR/$(basename "$0")"
wait_socket pureftpd tcp "$PORT4" "$DIR/logs/stdout.log" || fail_start

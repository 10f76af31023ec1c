#!/bin/bash
# vsftpd, one instance on 127.0.0.1:PORT4 and one on [::1]:PORT6, passive
# ports PASV_MIN..PASV_MAX, banner "220 test ftp ready":
#   anonymous   reads DIR/anon (pub/readme.txt), writes (STOR, APPE, MKD)
#               below DIR/anon/incoming
#   ftpuser     password ftppass, chrooted in DIR/home/ftpuser (mine.txt),
#               full write access
# The system account ftpuser is created when missing (local logins go through
# PAM); its password is set on every start.
# Usage: vsftpd.sh start DIR PORT4 PORT6 PASV_MIN PASV_MAX | vsftpd.sh stop DIR
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORT4=$(port_arg "${ARGS[0]:-}" ftp) || exit
PORT6=$(port_arg "${ARGS[1]:-}" ftp6) || exit
PASV_MIN=$(port_arg "${ARGS[2]:-}" pasv_min) || exit
PASV_MAX=$(port_arg "${ARGS[3]:-}" pasv_max) || exit

need_binaries vsftpd useradd usermod chpasswd openssl getent
need_root
prepare_dir "$DIR"

FTP_USER=ftpuser
FTP_PASS=ftppass
# Home "/" only has to exist: vsftpd changes into it before going on to
# this server's local_root, which becomes the chroot.
ensure_account() {
  local hash i
  hash=$(openssl passwd -6 -salt quarrytest "$FTP_PASS") || return 1
  for ((i = 0; i < 20; i++)); do
    # Another test run may hold the lock on the account files for a moment.
    id "$FTP_USER" > /dev/null 2>&1 || useradd -M -d / -s /bin/bash "$FTP_USER" 2> /dev/null
    if id "$FTP_USER" > /dev/null 2>&1; then
      [ "$(getent passwd "$FTP_USER" | cut -d: -f6)" = / ] || usermod -d / "$FTP_USER" 2> /dev/null
      grep -qF "$FTP_USER:$hash:" /etc/shadow ||
        echo "$FTP_USER:$hash" | chpasswd -e 2> /dev/null
      [ "$(getent passwd "$FTP_USER" | cut -d: -f6)" = / ] &&
        grep -qF "$FTP_USER:$hash:" /etc/shadow && return 0
    fi
    sleep 0.2
  done
  return 1
}
ensure_account || die "cannot set up the account $FTP_USER"
# Anonymous sessions run as the package's ftp account when there is one.
ANON_USER=ftp
id "$ANON_USER" > /dev/null 2>&1 || ANON_USER=nobody

mkdir -p "$DIR"/{conf,logs,empty,anon/pub,anon/incoming,home/$FTP_USER}
printf 'anon file\n' > "$DIR/anon/pub/readme.txt"
printf 'user file\n' > "$DIR/home/$FTP_USER/mine.txt"
chown -R "$FTP_USER:" "$DIR/home/$FTP_USER"
# vsftpd refuses an anonymous root the anonymous user can write to.
chown root:root "$DIR/anon" "$DIR/empty"
chmod 755 "$DIR/anon" "$DIR/empty"
chown "$ANON_USER:" "$DIR/anon/incoming"

write_conf() {  # write_conf FILE LISTEN_LINES... : common settings plus these
  local file=$1
  shift
  {
    printf '%s\n' "$@"
    cat << CONF
background=NO
anonymous_enable=YES
no_anon_password=NO
ftp_username=$ANON_USER
anon_root=$DIR/anon
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
anon_umask=022
local_enable=YES
local_root=$DIR/home/$FTP_USER
write_enable=YES
local_umask=022
chroot_local_user=YES
allow_writeable_chroot=YES
pam_service_name=vsftpd
pasv_enable=YES
pasv_min_port=$PASV_MIN
pasv_max_port=$PASV_MAX
port_enable=YES
connect_from_port_20=NO
secure_chroot_dir=$DIR/empty
seccomp_sandbox=NO
xferlog_enable=YES
xferlog_std_format=NO
log_ftp_protocol=YES
ftpd_banner=test ftp ready
CONF
  } > "$file"
  chmod 600 "$file"
}

# listen=YES and listen_ipv6=YES cannot share one process.
write_conf "$DIR/conf/vsftpd.conf" listen=YES listen_ipv6=NO listen_address=127.0.0.1 \
  "listen_port=$PORT4" pasv_address=127.0.0.1 "vsftpd_log_file=$DIR/logs/vsftpd.log"
write_conf "$DIR/conf/vsftpd6.conf" listen=NO listen_ipv6=YES listen_address6=::1 \
  "listen_port=$PORT6" "vsftpd_log_file=$DIR/logs/vsftpd6.log"

# vsftpd reports configuration errors ("500 OOPS") on fd 0.
spawn vsftpd "$DIR/logs/stdout.log" vsftpd "$DIR/conf/vsftpd.conf" 0> "$DIR/logs/oops.log"
if [ "$(< "$DIR/ipv6")" = yes ]; then
  spawn vsftpd6 "$DIR/logs/stdout6.log" vsftpd "$DIR/conf/vsftpd6.conf" 0> "$DIR/logs/oops6.log"
fi
start_watchdog "$SERVERS_DIR/$(basename "$0")"
wait_socket vsftpd tcp "$PORT4" "$DIR/logs/oops.log" || fail_start
if [ "$(< "$DIR/ipv6")" = yes ]; then
  wait_socket vsftpd6 tcp "$PORT6" "$DIR/logs/oops6.log" || fail_start
fi

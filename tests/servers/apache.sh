#!/bin/bash
# apache2 on 127.0.0.1 and ::1, PORT:
#   /files/       static
#   /digest/      Digest MD5, qop=auth, realm "phone digest", user1/pass1
#   /basic/       Basic, realm "phone basic", user1/pass1
#   /dav/         WebDAV (PUT ...) behind Digest, files land in DIR/dav
#   /cgi-bin/upload.cgi     multipart/form-data POST: every file part is
#   /digest-cgi/upload.cgi  stored in DIR/uploads (second one behind Digest)
# Usage: apache.sh start DIR PORT | apache.sh stop DIR
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORT=$(port_arg "${ARGS[0]:-}" http) || exit

M=/usr/lib/apache2/modules
need_binaries apache2 python3 "$M/mod_auth_digest.so" "$M/mod_cgi.so" "$M/mod_dav_fs.so"
need_root
prepare_dir "$DIR"

mkdir -p "$DIR"/{conf,logs,htdocs/files,cgi-bin,uploads,dav,run}
printf 'hello apache\n' > "$DIR/htdocs/files/hello.txt"
# htdigest line: user:realm:MD5(user:realm:password)
HA1=$(printf '%s' 'user1:phone digest:pass1' | md5sum | cut -d' ' -f1)
printf 'user1:phone digest:%s\n' "$HA1" > "$DIR/conf/htdigest"
htpasswd -cbB "$DIR/conf/htpasswd" user1 pass1 2> /dev/null ||
  printf 'user1:%s\n' "$(openssl passwd -apr1 pass1)" > "$DIR/conf/htpasswd"
chmod 644 "$DIR/conf/htdigest" "$DIR/conf/htpasswd"
cp "$SERVERS_DIR/upload.cgi" "$DIR/cgi-bin/upload.cgi"
chmod 755 "$DIR/cgi-bin/upload.cgi"
# Children run as nobody: uploads, DAV files and the DAV lock database.
chown nobody:nogroup "$DIR/uploads" "$DIR/dav" "$DIR/run"

LISTEN="Listen 127.0.0.1:$PORT"
[ "$(< "$DIR/ipv6")" = yes ] && LISTEN+=$'\n'"Listen [::1]:$PORT"

digest_auth() {  # the Digest block shared by the protected locations
  cat << BLOCK
    AuthType Digest
    AuthName "phone digest"
    AuthDigestDomain /digest/ /dav/ /digest-cgi/
    AuthDigestProvider file
    AuthUserFile "$DIR/conf/htdigest"
    AuthDigestAlgorithm MD5
    AuthDigestQop auth
    Require valid-user
BLOCK
}

# unixd and log_config are built in: loading them again is an error.
load_modules() {
  local m
  for m in mpm_prefork authz_core authz_user authn_core authn_file auth_basic auth_digest \
      alias cgi mime dav dav_fs env; do
    echo "LoadModule ${m}_module $M/mod_$m.so"
  done
}

cat > "$DIR/conf/httpd.conf" << CONF
ServerRoot "$DIR"
ServerName localhost
$LISTEN
PidFile logs/httpd.pid
DefaultRuntimeDir run
ErrorLog logs/error.log
LogLevel info
$(load_modules)
User nobody
Group nogroup
StartServers 2
MinSpareServers 1
MaxSpareServers 4
MaxRequestWorkers 10
KeepAlive On
TypesConfig /etc/mime.types
DocumentRoot "$DIR/htdocs"
DavLockDB "$DIR/run/davlock"
LimitRequestBody 0
SetEnv UPLOAD_DIR "$DIR/uploads"
<Directory />
    Require all granted
</Directory>
Alias /files/ "$DIR/htdocs/files/"
Alias /digest/ "$DIR/htdocs/files/"
<Location "/digest/">
$(digest_auth)
</Location>
Alias /basic/ "$DIR/htdocs/files/"
<Location "/basic/">
    AuthType Basic
    AuthName "phone basic"
    AuthBasicProvider file
    AuthUserFile "$DIR/conf/htpasswd"
    Require valid-user
</Location>
Alias /dav/ "$DIR/dav/"
<Location "/dav/">
    Dav On
$(digest_auth)
</Location>
ScriptAlias /cgi-bin/ "$DIR/cgi-bin/"
ScriptAlias /digest-cgi/ "$DIR/cgi-bin/"
<Location "/digest-cgi/">
$(digest_auth)
</Location>
CONF

LOG=$DIR/logs/stdout.log
apache2 -t -f "$DIR/conf/httpd.conf" >> "$LOG" 2>&1 || { show_log "$LOG"; fail_start; }
spawn apache "$LOG" apache2 -f "$DIR/conf/httpd.conf" -DFOREGROUND < /dev/null
start_watchdog "$SERVERS_DIR/$(basename "$0")"
wait_socket apache tcp "$PORT" "$DIR/logs/error.log" || fail_start
wait_tcp_answer 127.0.0.1 "$PORT" || fail_start

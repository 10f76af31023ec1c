#!/bin/bash
# lighttpd on 127.0.0.1 and ::1, PORT (realm "phone digest", user1/pass1):
#   /files/    static
#   /md5/      Digest MD5          /sha256/  Digest SHA-256
#   /both/     two challenges, SHA-256 then MD5
#   /basic/    Basic, realm "phone basic"
#   /cgi-bin/upload.cgi, /cgi-bin/auth-upload.cgi (behind Digest): every file
#              part of a multipart/form-data POST is stored in DIR/uploads
# Usage: lighttpd.sh start DIR PORT | lighttpd.sh stop DIR
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
PORT=$(port_arg "${ARGS[0]:-}" http) || exit

need_binaries lighttpd python3
need_root
prepare_dir "$DIR"

mkdir -p "$DIR"/{conf,logs,www/files,cgi-bin,uploads}
printf 'hello lighttpd\n' > "$DIR/www/files/hello.txt"
# The plain backend holds clear passwords, so every Digest algorithm works.
printf 'user1:pass1\n' > "$DIR/conf/plain.users"
cp "$SERVERS_DIR/upload.cgi" "$DIR/cgi-bin/upload.cgi"
cp "$SERVERS_DIR/upload.cgi" "$DIR/cgi-bin/auth-upload.cgi"
chmod 755 "$DIR"/cgi-bin/*.cgi
# lighttpd opens its error log after dropping to nobody.
chown nobody:nogroup "$DIR/logs" "$DIR/uploads"

V6=
[ "$(< "$DIR/ipv6")" = yes ] && V6="\$SERVER[\"socket\"] == \"[::1]:$PORT\" { }"

cat > "$DIR/conf/lighttpd.conf" << CONF
var.base = "$DIR"
server.modules = ( "mod_access", "mod_alias", "mod_auth", "mod_authn_file", "mod_cgi", "mod_setenv" )
server.bind = "127.0.0.1"
server.port = $PORT
$V6
server.document-root = base + "/www"
server.errorlog = base + "/logs/error.log"
server.username = "nobody"
server.groupname = "nogroup"
server.max-request-size = 0
mimetype.assign = ( ".txt" => "text/plain", "" => "application/octet-stream" )
auth.backend = "plain"
auth.backend.plain.userfile = base + "/conf/plain.users"
auth.require = (
  "/md5/"    => ( "method" => "digest", "realm" => "phone digest", "require" => "valid-user", "algorithm" => "MD5" ),
  "/sha256/" => ( "method" => "digest", "realm" => "phone digest", "require" => "valid-user", "algorithm" => "SHA-256" ),
  "/both/"   => ( "method" => "digest", "realm" => "phone digest", "require" => "valid-user", "algorithm" => "SHA-256|MD5" ),
  "/basic/"  => ( "method" => "basic",  "realm" => "phone basic",  "require" => "valid-user" ),
  "/cgi-bin/auth" => ( "method" => "digest", "realm" => "phone digest", "require" => "valid-user" ),
)
alias.url = ( "/md5/" => base + "/www/files/", "/sha256/" => base + "/www/files/",
              "/both/" => base + "/www/files/", "/basic/" => base + "/www/files/",
              "/cgi-bin/" => base + "/cgi-bin/" )
cgi.assign = ( ".cgi" => "/usr/bin/python3" )
setenv.add-environment = ( "UPLOAD_DIR" => base + "/uploads" )
CONF

LOG=$DIR/stdout.log
lighttpd -tt -f "$DIR/conf/lighttpd.conf" >> "$LOG" 2>&1 || { show_log "$LOG"; fail_start; }
spawn lighttpd "$LOG" lighttpd -D -f "$DIR/conf/lighttpd.conf" < /dev/null
start_watchdog "$SERVERS_DIR/$(basename "$0")"
wait_socket lighttpd tcp "$PORT" "$LOG" || fail_start
wait_tcp_answer 127.0.0.1 "$PORT" || fail_start

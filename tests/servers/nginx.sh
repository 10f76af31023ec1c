#!/bin/bash
# nginx on 127.0.0.1 and ::1:
#   HTTP_PORT   static /files/, /r301 /r302 /loop redirects, Basic auth /private/
#               (user1/pass1), WebDAV PUT /upload/ (and /authupload/ behind
#               Basic), chunked /chunked (echo module) and /chunkedfile/
#               (sub_filter drops the length), /slow, /headers (echoes the
#               request head), keep-alive
#   HTTPS_PORT  TLS 1.2/1.3, optional client certificate, /files/, /whoami,
#               Basic auth /private/, PUT /upload/, /r301 (to /files/hello.txt
#               over https), /tohttp (302 to plain HTTP); HTTP_PORT's /tohttps
#               redirects here
#   MTLS_PORT   TLS, client certificate required (400 without one), /files/
# NGINX_SSL_CIPHERS, when set, becomes the TLS servers' ssl_ciphers (for
# example "DEFAULT:@SECLEVEL=0" to accept client certificates signed with
# MD5); unset, nginx keeps its default.
# Usage: nginx.sh start DIR HTTP_PORT HTTPS_PORT MTLS_PORT | nginx.sh stop DIR
# PKI_DIR names an existing test PKI; otherwise one is made in DIR/pki.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
parse_command "$@"
HTTP=$(port_arg "${ARGS[0]:-}" http) || exit
HTTPS=$(port_arg "${ARGS[1]:-}" https) || exit
MTLS=$(port_arg "${ARGS[2]:-}" mtls) || exit

ECHO_MODULE=/usr/lib/nginx/modules/ngx_http_echo_module.so
need_binaries nginx openssl "$ECHO_MODULE"
need_root
prepare_dir "$DIR"

P=${PKI_DIR:-$DIR/pki}
"$SERVERS_DIR/pki.sh" "$P" || die "cannot make the PKI in $P"

mkdir -p "$DIR"/{conf,logs,tmp,www/files,www/private,upload}
printf 'hello world\n' > "$DIR/www/files/hello.txt"
head -c 1048576 /dev/urandom > "$DIR/www/files/1M.bin"
head -c 6291456 /dev/urandom > "$DIR/www/files/6M.bin"
printf 'secret stuff\n' > "$DIR/www/private/secret.txt"
printf 'user1:%s\n' "$(openssl passwd -apr1 pass1)" > "$DIR/conf/htpasswd"
chmod 644 "$DIR/conf/htpasswd"
# Workers run as nobody and write uploads and request bodies.
chown nobody:nogroup "$DIR/upload" "$DIR/tmp"

listen() {  # listen PORT [ssl]
  echo "listen 127.0.0.1:$1 $2;"
  [ "$(< "$DIR/ipv6")" = yes ] && echo "        listen [::1]:$1 $2;"
}

tls_server() {  # tls_server PORT CLIENT_VERIFY [MORE_LOCATIONS]
  cat << BLOCK
    server {
        $(listen "$1" ssl)
        root www;
        ssl_certificate $P/server.crt;  ssl_certificate_key $P/server.key;
        ssl_protocols TLSv1.2 TLSv1.3;
        ssl_client_certificate $P/ca.crt;  ssl_verify_client $2;
        ${NGINX_SSL_CIPHERS:+ssl_ciphers $NGINX_SSL_CIPHERS;}
        location /files/ { }
${3:-}
    }
BLOCK
}

cat > "$DIR/conf/nginx.conf" << CONF
master_process on;
worker_processes 1;
pid logs/nginx.pid;
error_log logs/error.log info;
load_module $ECHO_MODULE;
events { worker_connections 256; }
http {
    access_log logs/access.log;
    client_body_temp_path tmp/body;  proxy_temp_path tmp/proxy;
    fastcgi_temp_path tmp/fastcgi;   uwsgi_temp_path tmp/uwsgi;   scgi_temp_path tmp/scgi;
    default_type application/octet-stream;
    types { text/plain txt; text/html html; }
    keepalive_timeout 65;  keepalive_requests 1000;
    server {
        $(listen "$HTTP")
        root www;
        location /files/   { }
        location = /r301   { return 301 /files/hello.txt; }
        location = /r302   { return 302 http://127.0.0.1:$HTTP/files/hello.txt; }
        location = /loop   { return 302 /loop; }
        location /private/ { auth_basic "phone realm"; auth_basic_user_file htpasswd; }
        location /upload/ {
            alias upload/;
            dav_methods PUT DELETE MKCOL COPY MOVE;
            create_full_put_path on;  dav_access user:rw group:rw all:r;
            client_max_body_size 0;  autoindex on;
        }
        location /authupload/ {
            alias upload/;
            auth_basic "upload realm"; auth_basic_user_file htpasswd;
            dav_methods PUT; create_full_put_path on; client_max_body_size 0;
        }
        location = /chunked {
            default_type text/plain;
            echo "part one"; echo_flush; echo_sleep 0.2; echo "part two"; echo_flush;
        }
        location /chunkedfile/ {
            alias www/files/;
            sub_filter 'hello' 'HELLO'; sub_filter_once off; sub_filter_types *;
        }
        location = /slow { default_type text/plain; echo_sleep 5; echo "late"; }
        location = /headers { default_type text/plain; echo -n \$echo_client_request_headers; }
        location = /tohttps { return 302 https://127.0.0.1:$HTTPS/files/hello.txt; }
    }
$(tls_server "$HTTPS" optional '        location = /whoami {
            default_type text/plain;
            return 200 "verify=$ssl_client_verify dn=$ssl_client_s_dn proto=$ssl_protocol\n";
        }
        location /private/ { auth_basic "phone realm"; auth_basic_user_file htpasswd; }
        location /upload/ {
            alias upload/;
            dav_methods PUT; create_full_put_path on; client_max_body_size 0;
        }
        location = /r301   { return 301 /files/hello.txt; }
        location = /tohttp { return 302 http://127.0.0.1:'"$HTTP"'/files/hello.txt; }')
$(tls_server "$MTLS" on)
}
CONF

LOG=$DIR/logs/stdout.log
# -e: the compiled-in error log under /var/log would be opened before the
# config is read.
spawn nginx "$LOG" nginx -p "$DIR" -c conf/nginx.conf -e logs/error.log -g 'daemon off;' < /dev/null
start_watchdog "$SERVERS_DIR/$(basename "$0")"
for port in "$HTTP" "$HTTPS" "$MTLS"; do
  wait_socket nginx tcp "$port" "$DIR/logs/error.log" || fail_start
done
wait_tcp_answer 127.0.0.1 "$HTTP" || fail_start

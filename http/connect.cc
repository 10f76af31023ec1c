// Opening and ending the connection of a handle: TCP, then TLS with the
// protocol-version fallback, and the reset that leaves a clean handle.
#include <openssl/ssl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/core.h"
#include "http/http_conn.h"

namespace {

constexpr size_t kPathRoom = 512;

// The TLS settings of one connect, copied out of the record.
struct TlsSettings {
  char cert_path[kPathRoom];
  char ca_path[kPathRoom];
  int method;
  int verify;
  int check_host;
};

TlsSettings read_tls_settings() {
  TlsSettings s;
  quarry::cfg_read_text(&dl_config::ssl_cert_path, s.cert_path, sizeof(s.cert_path));
  quarry::cfg_read_text(&dl_config::ssl_ca_path, s.ca_path, sizeof(s.ca_path));
  quarry::CfgLock lock;
  s.method = static_cast<int>(g_dl_cfg.ssl_method);
  s.verify = static_cast<int>(g_dl_cfg.ssl_verify_peer);
  s.check_host = static_cast<int>(g_dl_cfg.ssl_check_host);
  return s;
}

void close_socket(dl_http_conn *conn) {
  if (conn->sock != 0) close(conn->sock);
  conn->sock = 0;
}

// Connects the handle's socket. Returns 0 or the connect's negative code.
int connect_socket(dl_http_conn *conn, const char *host, int port, int ipv6, int timeout) {
  int sock = dl_connect(host, port, ipv6, timeout);
  // Descriptor 0 would read as "no socket" in the handle.
  if (sock < 1) return sock < 0 ? sock : DL_ERR_CONNECT;
  conn->sock = sock;
  return 0;
}

int handshake(dl_http_conn *conn, const TlsSettings &s, int method, const char *host, SSL **ssl,
              SSL_CTX **ctx) {
  return dl_do_SSL_connect(conn->sock, s.cert_path, s.ca_path, method, s.verify, s.check_host, host,
                           ssl, ctx);
}

}  // namespace

extern "C" {

DL_EXPORT int http_connect(dl_http_conn *conn, const char *host, int port, const dl_url *proxy) {
  if (!quarry::http_conn_live(conn) || host == nullptr) {
    libq_log(quarry::kModHttp, quarry::kLogError, "http connect with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  int ipv6;
  int timeout;
  {
    quarry::CfgLock lock;
    ipv6 = g_dl_cfg.ipv6_enable;
    timeout = g_dl_cfg.timeout_s;
  }
  int ret = connect_socket(conn, host, port, ipv6, timeout);
  if (ret != 0) return ret;
  // Through a proxy the request goes in plain text: no tunnel is made.
  if (proxy != nullptr || (conn->flags & DL_HTTP_TLS) == 0) return 0;

  const TlsSettings settings = read_tls_settings();
  SSL *ssl = nullptr;
  SSL_CTX *ctx = nullptr;
  ret = handshake(conn, settings, settings.method, host, &ssl, &ctx);
  if (ret == DL_ERR_SSL_METHOD) {
    libq_log(quarry::kModCommon, quarry::kLogInfo, "Reset ssl methmod!\n");
    // Each version gets a fresh TCP connection: the refused handshake
    // leaves the old one unusable.
    for (int32_t method : tls_retry) {
      close_socket(conn);
      if (method == settings.method) continue;
      int connected = connect_socket(conn, host, port, ipv6, timeout);
      if (connected != 0) return connected;
      ret = handshake(conn, settings, method, host, &ssl, &ctx);
      if (ret != DL_ERR_SSL_METHOD) break;
    }
  }
  if (ret >= 0) {
    conn->ssl = ssl;
    conn->ssl_ctx = ctx;
    return ret;
  }
  close_socket(conn);
  return ret;
}

DL_EXPORT void http_reset(dl_http_conn *conn) {
  if (!quarry::http_conn_live(conn)) {
    libq_log(quarry::kModHttp, quarry::kLogError, "http reset with invalid parameter\n");
    return;
  }
  if (conn->chunk != nullptr) {
    free(conn->chunk->data);
    free(conn->chunk);
  }
  free(conn->headers);
  free(conn->rx);
  if (conn->ssl != nullptr) {
    int fd = SSL_get_fd(conn->ssl);
    struct sockaddr_storage peer;
    socklen_t peer_len = sizeof(peer);
    // Say goodbye only to a peer that is still there.
    if (fd > 0 && getpeername(fd, reinterpret_cast<struct sockaddr *>(&peer), &peer_len) == 0) {
      SSL_shutdown(conn->ssl);
    }
    SSL_free(conn->ssl);
  }
  if (conn->sock != 0) close(conn->sock);
  if (conn->ssl_ctx != nullptr) SSL_CTX_free(conn->ssl_ctx);
  memset(conn, 0, sizeof(*conn));
  conn->magic = DL_HTTP_MAGIC;
}

}  // extern "C"

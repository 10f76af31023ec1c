// Stand-in for the TLS handshake until it is built: every HTTPS connect
// fails cleanly, before any byte is sent, and hands nothing back.
#include "core/core.h"

extern "C" DL_EXPORT int dl_do_SSL_connect(int fd, const char *cert_file, const char *ca_dir,
                                           int method, int verify, int check_host, const char *host,
                                           struct ssl_st **out_ssl, struct ssl_ctx_st **out_ctx) {
  (void)fd;
  (void)cert_file;
  (void)ca_dir;
  (void)method;
  (void)verify;
  (void)check_host;
  (void)host;
  (void)out_ssl;
  (void)out_ctx;
  libq_log(quarry::kModCommon, quarry::kLogError, "TLS handshake not available\n");
  return DL_ERR_CONNECT;
}

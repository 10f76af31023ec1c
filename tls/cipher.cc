// The cipher list of every HTTPS context: the configured one when it
// selects something under the configured method, else a fixed fallback.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <string.h>

#include "core/core.h"
#include "tls/tls.h"

namespace {

constexpr size_t kCipherListRoom = 512;
constexpr char kDefaultCiphers[] = "DEFAULT";
constexpr char kFallbackCiphers[] = "RSA:!EXP:!LOW:!NULL:!MD5:@STRENGTH";

void log_error(const char *text) { libq_log(quarry::kModCommon, quarry::kLogError, "%s", text); }

}  // namespace

extern "C" {

DL_EXPORT int dl_https_set_ssl_cipher(SSL_CTX *ctx) {
  if (ctx == nullptr) {
    log_error("Invaild paramter\n");
    return -1;
  }
  char list[kCipherListRoom];
  quarry::cfg_read_text(&dl_config::ssl_cipher_list, list, sizeof list);
  if (list[0] == '\0') {
    memcpy(list, kDefaultCiphers, sizeof kDefaultCiphers);
  } else if (dl_https_check_cipher_str(list) != 0) {
    memcpy(list, kFallbackCiphers, sizeof kFallbackCiphers);
  }
  int ret = SSL_CTX_set_cipher_list(ctx, list);
  // 0 (nothing selected) passes as success, as it always has; its queued
  // error must not be taken for the handshake's own later.
  ERR_clear_error();
  if (ret >= 0) return 0;
  libq_log(quarry::kModCommon, quarry::kLogInfo, "set cipher list ret %d\n", ret);
  return -1;
}

DL_EXPORT int dl_https_check_cipher_str(const char *text) {
  if (text == nullptr) {
    log_error("Invaild paramter\n");
    return -1;
  }
  uint32_t method = quarry::cfg_read(&dl_config::ssl_method);
  if (method > static_cast<uint32_t>(quarry::kTlsMethodLast)) {
    log_error("wrong method\n");
    return -1;
  }
  quarry::UniqueSslCtx ctx(quarry::tls_context_new(static_cast<int>(method)));
  if (!ctx) {
    log_error("SSL_CTX_new Error\n");
    ERR_clear_error();
    return -1;
  }
  int ret = SSL_CTX_set_cipher_list(ctx.get(), text);
  if (ret == 0) {
    libq_log(quarry::kModCommon, quarry::kLogInfo, "set cipher list  ret %d\n", ret);
    ERR_clear_error();
    return -1;
  }
  quarry::UniqueSsl ssl(SSL_new(ctx.get()));
  if (!ssl) {
    log_error("Create ssl error\n");
    ERR_clear_error();
    return -1;
  }
  int count = sk_SSL_CIPHER_num(SSL_get_ciphers(ssl.get()));
  libq_log(quarry::kModCommon, quarry::kLogInfo, "ssl cipher num is %d\n", count);
  ctx.reset();
  ssl.reset();
  return count > 0 ? 0 : -1;
}

}  // extern "C"

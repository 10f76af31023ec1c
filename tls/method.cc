// The protocol-method table, and every place where OpenSSL 3 is made to
// act as the OpenSSL 1.0.x the library's behaviour was defined on. Each
// such place says so ("1.0.x:") where it happens.
#include <openssl/ssl.h>

#include "tls/tls.h"

namespace {

using MethodConstructor = const SSL_METHOD *(*)();

// Indexed by method number. 1.0.x: SSL 2 and SSL 3 could be made; OpenSSL 3
// has no SSLv2_method at all and this build compiles SSLv3_method out, so
// their slots stay empty and such a context fails as one that cannot be
// made. SSLv23_method is OpenSSL 3's TLS_method: it negotiates the highest
// version both sides speak, TLS 1.3 included.
constexpr MethodConstructor kMethods[] = {
    TLSv1_method, nullptr, nullptr, SSLv23_method, TLSv1_1_method, TLSv1_2_method,
};
static_assert(sizeof(kMethods) / sizeof(kMethods[0]) == quarry::kTlsMethodLast + 1,
              "one constructor per method number");

// OpenSSL 3's security level that lets TLS 1.0 and 1.1 sign with SHA-1
// and use the ciphers those versions have.
constexpr int kLegacySecurityLevel = 0;

}  // namespace

namespace quarry {

bool tls_method_known(int method) { return method >= 0 && method <= kTlsMethodLast; }

SSL_CTX *tls_context_new(int method) {
  if (!tls_method_known(method) || kMethods[method] == nullptr) return nullptr;
  SSL_CTX *ctx = SSL_CTX_new(kMethods[method]());
  if (ctx == nullptr) return nullptr;
  // 1.0.x: the TLS 1.0 and 1.1 methods reached servers that speak only
  // those versions. OpenSSL 3's default level (2 here) refuses their SHA-1
  // signatures, so those two methods get level 0; the others keep the
  // system's level, which a caller may lower with "@SECLEVEL=0" in the
  // cipher list set after this.
  if (method == kTlsMethodTls10 || method == kTlsMethodTls11) {
    SSL_CTX_set_security_level(ctx, kLegacySecurityLevel);
  }
  // 1.0.x: a peer that closed without close_notify ended the stream.
  // OpenSSL 3 makes that an SSL error; this option restores the end of
  // stream, so a body read until the server closes ends normally and a
  // peer that hangs up mid-handshake is "ended by the peer".
  SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
  return ctx;
}

bool tls_reason_is_wrong_version(int reason) {
  // 1.0.x: a fixed-version client answered with another version failed
  // with "wrong version number" (267). OpenSSL 3 says "wrong ssl version"
  // (266) there and keeps 267 for a peer that does not speak TLS at all.
  // A protocol-version alert from the server (1070) is no such case.
  return reason == SSL_R_WRONG_VERSION_NUMBER || reason == SSL_R_WRONG_SSL_VERSION;
}

bool tls_handshake_finished(const SSL *ssl) {
  // 1.0.x: SSL_state(ssl) == SSL_ST_OK; OpenSSL 3 has no SSL_state.
  return SSL_is_init_finished(ssl) != 0;
}

}  // namespace quarry

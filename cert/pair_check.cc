// Whether a file holds a certificate and the private key that goes with
// it, tried the way a TLS context takes them: the device-certificate
// installer and the advance check of the verification both ask this.
// Protocol selectors: 0 TLS 1.0, 1 SSL 2, 2 SSL 3, 3 negotiated, 4 TLS
// 1.1, 5 TLS 1.2.
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "cert/cert.h"
#include "core/core.h"
#include "tls/tls.h"

namespace quarry {
namespace cert {

namespace {

// The pair is checked for being usable at all, as OpenSSL 1.0 did; the
// system's security level would also judge key sizes and digests, which
// is for the handshake to decide, not for the installer.
constexpr int kNoSecurityLevel = 0;

// SSL 2 and SSL 3 are gone from OpenSSL 3: their contexts cannot be made.
SSL_CTX *checking_context(uint32_t method) {
  if (!tls_method_known(static_cast<int>(method))) return nullptr;
  SSL_CTX *ctx = tls_context_new(static_cast<int>(method));
  if (ctx != nullptr) SSL_CTX_set_security_level(ctx, kNoSecurityLevel);
  return ctx;
}

PairCheck try_pair(SSL_CTX *ctx, const char *path) {
  SSL_CTX_set_default_passwd_cb(ctx, password_cb);
  if (path == nullptr || SSL_CTX_load_verify_locations(ctx, path, nullptr) != 1) {
    libq_log(kModCommon, kLogError, "Can't open ca file ser_ca_file\n");
    return PairCheck::kCaFile;
  }
  if (SSL_CTX_use_certificate_file(ctx, path, SSL_FILETYPE_PEM) != 1) {
    libq_log(kModCommon, kLogError, "Can't load public key from ser_ca_file\n");
    return PairCheck::kCertificate;
  }
  // OpenSSL reports a missing key as 0, which passes here; the match
  // check below then fails on it.
  if (SSL_CTX_use_PrivateKey_file(ctx, path, SSL_FILETYPE_PEM) < 0) {
    libq_log(kModCommon, kLogError, "Can't load private key from ser_ca_file");
    return PairCheck::kKey;
  }
  if (SSL_CTX_check_private_key(ctx) != 1) {
    libq_log(kModCommon, kLogError, "Private key does not match the certificate public key\n");
    return PairCheck::kMismatch;
  }
  return PairCheck::kOk;
}

}  // namespace

PairCheck check_pair(const char *path, uint32_t method) {
  SslCtxPtr ctx(checking_context(method));
  if (!ctx) {
    libq_log(kModCommon, kLogError, "SSL_CTX_new error\n");
    ERR_clear_error();
    return PairCheck::kContext;
  }
  PairCheck result = try_pair(ctx.get(), path);
  ERR_clear_error();
  return result;
}

}  // namespace cert
}  // namespace quarry

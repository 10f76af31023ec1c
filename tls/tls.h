// tls/: the pieces of one HTTPS connection set-up that dl_do_SSL_connect
// puts together, and owners for the OpenSSL objects the library makes.
// The C entry points are declared in quarry.h and quarry_internal.h.
#ifndef QUARRY_TLS_TLS_H
#define QUARRY_TLS_TLS_H

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace quarry {

struct SslCtxFree {
  void operator()(SSL_CTX *ctx) const noexcept { SSL_CTX_free(ctx); }
};
struct SslFree {
  void operator()(SSL *ssl) const noexcept { SSL_free(ssl); }
};
struct X509Free {
  void operator()(X509 *cert) const noexcept { X509_free(cert); }
};
struct GeneralNamesFree {
  void operator()(GENERAL_NAMES *names) const noexcept { GENERAL_NAMES_free(names); }
};
struct BioFree {
  void operator()(BIO *bio) const noexcept { BIO_free(bio); }
};
using UniqueSslCtx = std::unique_ptr<SSL_CTX, SslCtxFree>;
using UniqueSsl = std::unique_ptr<SSL, SslFree>;
using UniqueX509 = std::unique_ptr<X509, X509Free>;
using UniqueGeneralNames = std::unique_ptr<GENERAL_NAMES, GeneralNamesFree>;
using UniqueBio = std::unique_ptr<BIO, BioFree>;

// Method numbers of ssl_method and tls_retry.
enum TlsMethod : int {
  kTlsMethodTls10 = 0,
  kTlsMethodSsl2 = 1,
  kTlsMethodSsl3 = 2,
  kTlsMethodNegotiate = 3,
  kTlsMethodTls11 = 4,
  kTlsMethodTls12 = 5,
};
constexpr int kTlsMethodLast = kTlsMethodTls12;

// ---- method.cc: the method table and what OpenSSL 1.0.x did by itself

// Whether |method| is a number of the table (0 to 5).
bool tls_method_known(int method);

// A new client context for a known |method|, set up to behave as the
// 1.0.x context of that method did; null when OpenSSL 3 cannot make one
// (SSL 2 and SSL 3 are gone). The caller owns it.
SSL_CTX *tls_context_new(int method);

// Whether a handshake failure with error reason |reason| is the
// wrong-version case that another method may get past.
bool tls_reason_is_wrong_version(int reason);

// Whether the handshake of |ssl| has completed.
bool tls_handshake_finished(const SSL *ssl);

// ---- socket_bio.cc

// A socket BIO on |fd| that does not close it and whose writes never
// raise SIGPIPE; null when memory runs out. The caller owns it.
BIO *tls_socket_bio(int fd);

// ---- handshake.cc

// Drives SSL_connect on the non-blocking socket of |ssl| to its end:
// 3-second waits for the peer, the whole handshake bounded by
// |timeout_s| + 3 seconds. Returns 0, DL_ERR_CONNECT, DL_ERR_SSL_METHOD,
// DL_ERR_CERT_VERIFY or DL_ERR_TLS_ALERT (|verify| tells -23 from the
// others), each failure logged. Frees nothing.
int tls_handshake(SSL *ssl, int verify, int timeout_s);

// ---- host_check.cc

// Whether |host| (a name, an IPv4 literal, or an IPv6 literal with or
// without brackets) is what |cert| names: subject alternative names, then
// the common name. Logs only when the common name cannot be read.
bool tls_host_matches(X509 *cert, const char *host);

// Whether |host| is an IPv4 or IPv6 literal as inet_pton reads it (no
// brackets); such hosts get no server name indication.
bool tls_host_is_address(const char *host);

}  // namespace quarry

#endif  // QUARRY_TLS_TLS_H

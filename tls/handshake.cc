// The client handshake on a non-blocking socket: SSL_connect until done,
// waiting for the peer in between, and the mapping of a failed handshake
// to the library's result codes.
#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <string.h>

#include "core/core.h"
#include "net/net.h"
#include "tls/tls.h"

namespace {

// Each wait for the peer; a silent server fails the handshake after it.
constexpr long long kWaitMs = 3000;
// Beyond the configured time-out, what the whole handshake may take: a
// peer that trickles a byte now and then would otherwise hold it forever.
constexpr long long kExtraBoundMs = 3000;

// The alerts that say the server refused the handshake or a certificate:
// handshake failure, no, bad, unsupported, revoked, expired or unknown
// certificate, unknown CA. Illegal parameter is deliberately not one.
bool is_refusal_alert(int reason) {
  switch (reason) {
    case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
    case SSL_R_SSLV3_ALERT_NO_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
      return true;
    default:
      return false;
  }
}

int protocol_failure(SSL *ssl, int verify) {
  unsigned long error = ERR_get_error();
  int reason = ERR_GET_REASON(error);
  long result = SSL_get_verify_result(ssl);
  ERR_clear_error();
  if (quarry::tls_reason_is_wrong_version(reason)) {
    libq_log(quarry::kModCommon, quarry::kLogInfo, "TLS version error!\n");
    return DL_ERR_SSL_METHOD;
  }
  libq_log(quarry::kModCommon, quarry::kLogError,
           "Certificate doesn't verify and error is %ld, reason %d\n", result, reason);
  if (verify != 0 && result != X509_V_OK) return DL_ERR_CERT_VERIFY;
  if (is_refusal_alert(reason)) return DL_ERR_TLS_ALERT;
  return DL_ERR_CONNECT;
}

int wait_failed() {
  libq_log(quarry::kModCommon, quarry::kLogError, "SSL_connect select(read) error (%s)\n",
           strerror(errno));
  return DL_ERR_CONNECT;
}

// Waits until the socket is readable, for 3 seconds at most and not past
// |deadline|. Readable only, also when OpenSSL wants to write: the peer's
// answer is what the handshake waits for. Returns the wait's result, 0
// when the time ran out.
int wait_for_peer(int fd, long long deadline) {
  long long wait_ms = deadline - quarry::monotonic_ms();
  const bool cut_by_bound = wait_ms <= kWaitMs;
  if (!cut_by_bound) wait_ms = kWaitMs;
  if (wait_ms < 0) wait_ms = 0;
  int ret = quarry::wait_ready(fd, quarry::kWaitReadable, wait_ms);
  // The log line names errno; say why the bound ended the wait.
  if (ret == 0 && cut_by_bound) errno = ETIMEDOUT;
  return ret;
}

}  // namespace

namespace quarry {

int tls_handshake(SSL *ssl, int verify, int timeout_s) {
  if (timeout_s < 0) timeout_s = 0;
  const long long deadline = monotonic_ms() + timeout_s * kMsPerSecond + kExtraBoundMs;
  for (;;) {
    ERR_clear_error();
    int ret = SSL_connect(ssl);
    int error = SSL_get_error(ssl, ret);
    if (error == SSL_ERROR_NONE) return 0;
    if (error == SSL_ERROR_SSL) return protocol_failure(ssl, verify);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
      ERR_clear_error();
      libq_log(kModCommon, kLogInfo, "SSL_connect write/read error\n");
      return DL_ERR_CONNECT;
    }
    if (monotonic_ms() >= deadline) {
      errno = ETIMEDOUT;
      return wait_failed();
    }
    if (wait_for_peer(SSL_get_fd(ssl), deadline) <= 0) return wait_failed();
    libq_log(kModCommon, kLogInfo, "SSL_connect (read done)\n");
    if (tls_handshake_finished(ssl)) return 0;
  }
}

}  // namespace quarry

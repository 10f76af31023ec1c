// The two callbacks the library hands to OpenSSL: the pass-phrase callback
// of every context made for a client certificate, and the verification
// callback the certificate checks install on their stores.
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <stdio.h>
#include <string.h>

#include "core/core.h"

namespace {

constexpr size_t kPasswordRoom = 512;
constexpr size_t kSubjectRoom = 256;

// Verification errors a store still accepts: CRL timing, a self-signed
// leaf, CA flag, path length, purpose and unknown critical extensions.
// Matched by name: OpenSSL 3 moved "invalid CA certificate" from 24 (now
// the missing issuer key, which stays an error) to 79.
bool is_tolerated_verify_error(int error) {
  switch (error) {
    case X509_V_ERR_CRL_NOT_YET_VALID:
    case X509_V_ERR_CRL_HAS_EXPIRED:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_INVALID_CA:
    case X509_V_ERR_PATH_LENGTH_EXCEEDED:
    case X509_V_ERR_INVALID_PURPOSE:
    case X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION:
      return true;
    default:
      return false;
  }
}

}  // namespace

extern "C" {

DL_EXPORT int password_cb(char *buf, int size, int rwflag, void *userdata) {
  (void)rwflag;
  if (buf == nullptr || size <= 0) return 0;
  if (userdata != nullptr) {
    size_t n = strlen(static_cast<const char *>(userdata));
    if (n > static_cast<size_t>(size)) n = static_cast<size_t>(size);
    memcpy(buf, userdata, n);
    return static_cast<int>(n);
  }
  char password[kPasswordRoom] = {};
  quarry::cfg_read_text(&dl_config::key_password, password, sizeof password);
  int written = snprintf(buf, static_cast<size_t>(size), "%s", password);
  // snprintf reports the untruncated length; OpenSSL must be told what is in buf.
  if (written >= size) written = size - 1;
  if (written < 0) written = 0;
  libq_log(quarry::kModCommon, quarry::kLogInfo, "num is %d, pwd length:%d\n", size, written);
  return written;
}

DL_EXPORT int cb(int preverify_ok, X509_STORE_CTX *store_ctx) {
  if (preverify_ok != 0) return preverify_ok;
  char subject[kSubjectRoom] = {};
  X509 *current = store_ctx != nullptr ? X509_STORE_CTX_get_current_cert(store_ctx) : nullptr;
  if (current != nullptr) X509_NAME_oneline(X509_get_subject_name(current), subject, sizeof subject);
  libq_log(quarry::kModCommon, quarry::kLogNotice, "%s\n", subject);
  int error = store_ctx != nullptr ? X509_STORE_CTX_get_error(store_ctx) : X509_V_ERR_UNSPECIFIED;
  int depth = store_ctx != nullptr ? X509_STORE_CTX_get_error_depth(store_ctx) : 0;
  libq_log(quarry::kModCommon, quarry::kLogNotice, "verify cb error %d at %d depth lookup:%s\n", error,
           depth, X509_verify_cert_error_string(error));
  return is_tolerated_verify_error(error) ? 1 : 0;
}

}  // extern "C"

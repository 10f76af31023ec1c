// Verifying a certificate file against a CA file and a hashed CA
// directory, with the outcome as a status number the screens translate.
#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <stdio.h>
#include <string.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr int kAdvanceFlag = 1;
constexpr uint32_t kLastAdvanceMethod = 3;

enum Status : int32_t {
  kVerified = 0,
  kBadArgument = 1,
  kInternal = 2,
  kBadSignature = 3,
  kNotYetValid = 4,
  kExpired = 5,
  kNoIssuer = 6,
  kBadMethod = 7,
  kCertUnusable = 8,
  kKeyUnusable = 9,
  kKeyMismatch = 10,
  kOtherError = 11,
};

int32_t status_of(int x509_error) {
  switch (x509_error) {
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
      return kBadSignature;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return kNotYetValid;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return kExpired;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return kNoIssuer;
    default:
      return kOtherError;
  }
}

void set_message(dl_cert_result *result, const char *text) {
  snprintf(result->msg, sizeof result->msg, "%s", text);
}

// The advance check: the file must work as certificate and key of a TLS
// context. 0 when it does, else -1 with the status set.
int advance_check(const char *cert_path, dl_cert_result *result) {
  libq_log(kModCommon, kLogInfo, "verify advance\n");
  uint32_t method = cfg_read(&dl_config::ssl_method);
  // The device installer takes 0 to 5; here only 0 to 3 are accepted.
  if (method > kLastAdvanceMethod) {
    libq_log(kModCommon, kLogError, "Wrong method");
    result->status = kBadMethod;
    return -1;
  }
  switch (check_pair(cert_path, method)) {
    case PairCheck::kOk:
      return 0;
    case PairCheck::kContext:
    case PairCheck::kCaFile:
      result->status = kInternal;
      break;
    case PairCheck::kCertificate:
      result->status = kCertUnusable;
      set_message(result, "Can't load public key\n");
      break;
    case PairCheck::kKey:
      result->status = kKeyUnusable;
      set_message(result, "Can't load private key\n");
      break;
    case PairCheck::kMismatch:
      result->status = kKeyMismatch;
      set_message(result, "Private key does not match");
      break;
  }
  return -1;
}

// Adds the file and directory lookups to |store|. False (status 2) when
// one cannot be made or the given file or directory cannot be loaded.
bool add_lookups(X509_STORE *store, const char *ca_dir, const char *ca_file, BIO *err) {
  X509_LOOKUP *file = X509_STORE_add_lookup(store, X509_LOOKUP_file());
  if (file == nullptr) return false;
  if (ca_file != nullptr) {
    if (X509_LOOKUP_load_file(file, ca_file, X509_FILETYPE_PEM) != 1) {
      BIO_printf(err, "Error loading file %s\n", ca_file);
      ERR_print_errors(err);
      return false;
    }
  } else {
    (void)X509_LOOKUP_load_file(file, nullptr, X509_FILETYPE_DEFAULT);
  }
  X509_LOOKUP *dir = X509_STORE_add_lookup(store, X509_LOOKUP_hash_dir());
  if (dir == nullptr) return false;
  if (ca_dir != nullptr) {
    if (X509_LOOKUP_add_dir(dir, ca_dir, X509_FILETYPE_PEM) != 1) {
      BIO_printf(err, "Error loading directory %s\n", ca_dir);
      ERR_print_errors(err);
      return false;
    }
  } else {
    (void)X509_LOOKUP_add_dir(dir, nullptr, X509_FILETYPE_DEFAULT);
  }
  ERR_clear_error();
  return true;
}

// Loads and verifies |cert_path|. Returns the X.509 error, 0 when it
// verified, or -1 when no certificate could be read.
int run_verification(X509_STORE *store, const char *cert_path, BIO *err) {
  BioPtr bio(BIO_new_file(cert_path, "r"));
  if (!bio) {
    ERR_clear_error();
    libq_log(kModCommon, kLogError, "Bio_new_file error ca_file\n");
  }
  X509Ptr x(bio ? read_cert(bio.get(), detect_format(cert_path)) : nullptr);
  printf("%s: \n", cert_path);
  fflush(stdout);
  if (!x) return -1;
  StoreCtxPtr ctx(X509_STORE_CTX_new());
  if (!ctx) return -1;
  X509_STORE_set_flags(store, 0);
  if (X509_STORE_CTX_init(ctx.get(), store, x.get(), nullptr) != 1) return -1;
  if (X509_verify_cert(ctx.get()) > 0) return 0;
  int error = X509_STORE_CTX_get_error(ctx.get());
  ERR_print_errors(err);
  return error != X509_V_OK ? error : -1;
}

}  // namespace

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT int dl_cert_verify(const char *cert_path, const char *ca_dir, const char *ca_file,
                             int flags, dl_cert_result *result) {
  if (result == nullptr || cert_path == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    if (result != nullptr) result->status = kBadArgument;
    return -1;
  }
  memset(result, 0, sizeof *result);
  if (OPENSSL_init_ssl(0, nullptr) != 1) {
    libq_log(kModCommon, kLogError, "SSL_library_init error\n");
    result->status = kInternal;
    return -1;
  }
  if ((flags & kAdvanceFlag) != 0 && advance_check(cert_path, result) != 0) return -1;
  StorePtr store(X509_STORE_new());
  if (!store) {
    result->status = kInternal;
    return -1;
  }
  X509_STORE_set_verify_cb(store.get(), cb);
  BioPtr err(BIO_new_fp(stderr, BIO_NOCLOSE));
  ERR_clear_error();
  if (!err || !add_lookups(store.get(), ca_dir, ca_file, err.get())) {
    result->status = kInternal;
    return -1;
  }
  int error = run_verification(store.get(), cert_path, err.get());
  ERR_clear_error();
  if (error == 0) {
    libq_log(kModCommon, kLogInfo, "OK\n");
    return 0;
  }
  // No X.509 error recorded: the file held no certificate.
  int recorded = error > 0 ? error : 0;
  result->status = status_of(recorded);
  snprintf(result->msg, sizeof result->msg, "verify err:%s",
           recorded != 0 ? X509_verify_cert_error_string(recorded) : "");
  return -1;
}

}  // extern "C"

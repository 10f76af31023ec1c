// The phone's certificate signing request and client certificate, both
// for the key of the deterministic generator.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <string.h>
#include <unistd.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr long kCertVersion3 = 2;
// 2014-02-28 23:47:12 UTC, the start of every client certificate's
// validity, for 7300 days.
constexpr time_t kNotBefore = 1393631232;
constexpr long kValiditySeconds = 630720000;
constexpr long kSerialWithoutName = 1;

// A request for |subject| with |key|, signed with |md| and checked.
X509_REQ *signed_request(EVP_PKEY *key, const char *subject, const EVP_MD *md) {
  ReqPtr req(X509_REQ_new());
  if (!req || make_REQ(req.get(), key, subject, 0, MBSTRING_UTF8) != 1) return nullptr;
  if (X509_REQ_sign(req.get(), key, md) <= 0) return nullptr;
  if (X509_REQ_verify(req.get(), key) <= 0) return nullptr;
  return req.release();
}

// The serial's content bytes are the characters of the common name.
bool set_serial(X509 *x, const char *cn) {
  ASN1_INTEGER *serial = X509_get_serialNumber(x);
  size_t len = strlen(cn);
  if (len == 0) return ASN1_INTEGER_set(serial, kSerialWithoutName) == 1;
  return ASN1_STRING_set(serial, cn, static_cast<int>(len)) == 1;
}

X509 *make_client_cert(X509_REQ *req, X509 *ca, EVP_PKEY *ca_key, const char *cn) {
  X509Ptr x(X509_new());
  EVP_PKEY *req_key = X509_REQ_get0_pubkey(req);
  if (!x || req_key == nullptr) return nullptr;
  if (X509_set_version(x.get(), kCertVersion3) != 1 || !set_serial(x.get(), cn)) return nullptr;
  if (X509_set_issuer_name(x.get(), X509_get_subject_name(ca)) != 1) return nullptr;
  if (ASN1_TIME_set(X509_getm_notBefore(x.get()), kNotBefore) == nullptr) return nullptr;
  if (ASN1_TIME_set(X509_getm_notAfter(x.get()), kNotBefore + kValiditySeconds) == nullptr) {
    return nullptr;
  }
  if (X509_set_subject_name(x.get(), X509_REQ_get_subject_name(req)) != 1) return nullptr;
  if (X509_set_pubkey(x.get(), req_key) != 1) return nullptr;
  if (X509_sign(x.get(), ca_key, EVP_md5()) <= 0) return nullptr;
  return x.release();
}

}  // namespace

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT int dl_cert_build_csr_req_file(const char *csr_path, const char *key_path,
                                         const char *subject, int bits) {
  if (csr_path == nullptr || key_path == nullptr || subject == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    return -1;
  }
  libq_log(kModCommon, kLogInfo, "key bits [%d], subject: [%s]\n", bits, subject);
  EVP_PKEY *raw_key = nullptr;
  int existed = 0;
  if (deterministic_key(key_path, subject, bits, &raw_key, &existed) != 0) return -1;
  PkeyPtr key(raw_key);
  ReqPtr req(signed_request(key.get(), subject, EVP_sha1()));
  if (!req) {
    ERR_clear_error();
    return -1;
  }
  // A failed request leaves no half-written file: one this call made is
  // removed, even when only its buffer could not be allocated.
  const bool was_there = access(csr_path, F_OK) == 0;
  BioPtr out(BIO_new_file(csr_path, "w"));
  bool written = out && PEM_write_bio_X509_REQ(out.get(), req.get()) == 1 &&
                 BIO_flush(out.get()) == 1;
  out.reset();
  if (written && dl_cert_write_key(key_path, 0, key.get()) == 0) return 0;
  ERR_clear_error();
  if (written || !was_there) (void)unlink(csr_path);
  return -1;
}

DL_EXPORT int dl_generate_client_cert(const char *ca_cert_path, const char *ca_key_path,
                                      const char *key_path, const char *cert_path,
                                      const char *subject, int bits) {
  if (ca_cert_path == nullptr || ca_key_path == nullptr || key_path == nullptr ||
      cert_path == nullptr || subject == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    return -1;
  }
  char cn[kCommonNameRoom];
  subject_common_name(subject, cn);
  EVP_PKEY *raw_key = nullptr;
  int existed = 0;
  if (deterministic_key(key_path, subject, bits, &raw_key, &existed) != 0) return -1;
  PkeyPtr key(raw_key);
  ReqPtr req(signed_request(key.get(), subject, EVP_md5()));
  if (!req) {
    ERR_clear_error();
    return -1;
  }
  BioPtr ca_bio;
  X509Ptr ca(load_cert_file(ca_cert_path, &ca_bio, "Bio_new_file error root ca\n",
                            "unable to load certificate filename\n"));
  if (!ca) return -1;
  BioPtr ca_key_bio(BIO_new_file(ca_key_path, "r"));
  if (!ca_key_bio) {
    ERR_clear_error();
    libq_log(kModCommon, kLogError, "Bio_new_file error filename\n");
    return -1;
  }
  PkeyPtr ca_key(PEM_read_bio_PrivateKey(ca_key_bio.get(), nullptr, password_cb, nullptr));
  if (!ca_key || X509_check_private_key(ca.get(), ca_key.get()) != 1) {
    ERR_clear_error();
    libq_log(kModCommon, kLogError, "CA certificate and CA private key do not match\n");
    return -1;
  }
  X509Ptr x(make_client_cert(req.get(), ca.get(), ca_key.get(), cn));
  if (!x) {
    ERR_clear_error();
    return -1;
  }
  // Certificate and key together: readable by the owner only.
  BioPtr out(new_private_file(cert_path));
  if (!write_pem(out.get(), x.get(), key.get())) {
    ERR_clear_error();
    // A failed generation leaves no half-written certificate behind.
    if (out) (void)unlink(cert_path);
    return -1;
  }
  out.reset();
  if (existed == 0 && dl_cert_write_key(key_path, 0, key.get()) != 0) {
    (void)unlink(cert_path);
    return -1;
  }
  return 0;
}

}  // extern "C"

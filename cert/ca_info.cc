// What the certificate screens show of one certificate file: the basic
// record (names, expiry, hash) and the extended one (version, serial,
// algorithms, key sizes, validity, extensions).
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr int kClientFlag = 1;
constexpr int kShortSerialBytes = 4;
constexpr int kStatusBadArgument = 1;
constexpr int kStatusLibrary = 2;

// Appends to a fixed field, cutting what does not fit.
class FieldWriter {
 public:
  FieldWriter(char *out, size_t room) : out_(out), room_(room) { out_[0] = '\0'; }
  void add(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
    if (used_ + 1 >= room_) return;
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(out_ + used_, room_ - used_, fmt, args);
    va_end(args);
    if (n <= 0) return;
    size_t avail = room_ - used_;
    size_t wrote = static_cast<size_t>(n);
    used_ += wrote < avail ? wrote : avail - 1;
  }

 private:
  char *out_;
  size_t room_;
  size_t used_ = 0;
};

// Serial numbers as X509_print of OpenSSL 1.0 showed them: up to four
// bytes in decimal and hexadecimal, longer ones as hexadecimal bytes.
void serial_text(const ASN1_INTEGER *serial, char *out, size_t room) {
  FieldWriter w(out, room);
  if (serial == nullptr) return;
  bool negative = ASN1_STRING_type(serial) == V_ASN1_NEG_INTEGER;
  const unsigned char *bytes = ASN1_STRING_get0_data(serial);
  int len = ASN1_STRING_length(serial);
  if (len <= kShortSerialBytes) {
    unsigned long value = 0;
    for (int i = 0; i < len; ++i) value = (value << 8) | bytes[i];
    const char *sign = negative ? "-" : "";
    w.add("%s%lu (%s0x%lx)", sign, value, sign, value);
    return;
  }
  if (negative) w.add("(Negative)");
  for (int i = 0; i < len; ++i) w.add("%02x%c", bytes[i], i + 1 == len ? ' ' : ':');
}

void object_text(const ASN1_OBJECT *obj, char *out, size_t room) {
  out[0] = '\0';
  if (obj != nullptr) i2t_ASN1_OBJECT(out, static_cast<int>(room), obj);
}

void set_status(dl_cert_result *result, int status) {
  if (result != nullptr) result->status = status;
}

// Opens and loads |path| for the information functions; logs as they do.
X509 *load_for_info(const char *path, BioPtr *bio) {
  if (dl_path_is_directory(path) == 1) {
    libq_log(kModCommon, kLogNotice, "path is directory, ret\n");
    return nullptr;
  }
  return load_cert_file(path, bio, "Bio_new_file error filename\n",
                        "unable to load certificate filename\n");
}

// The private key after the certificate in the same file.
void fill_client_key(BIO *bio, dl_ca_info_ex *info) {
  PkeyPtr key(PEM_read_bio_PrivateKey(bio, nullptr, password_cb, nullptr));
  if (!key) {
    ERR_clear_error();
    return;
  }
  object_text(OBJ_nid2obj(EVP_PKEY_base_id(key.get())), info->privkey_alg, sizeof info->privkey_alg);
  info->privkey_bits = EVP_PKEY_bits(key.get());
}

}  // namespace

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT int dl_get_ca_info(const char *path, dl_ca_info *info) {
  if (path == nullptr || info == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    return -1;
  }
  // The trust listing has written the path already.
  memset(info->cn, 0, sizeof info->cn);
  memset(info->org, 0, sizeof info->org);
  memset(info->expiry, 0, sizeof info->expiry);
  info->hash = 0;
  BioPtr bio;
  X509Ptr x(load_for_info(path, &bio));
  if (!x) return -2;
  info->hash = static_cast<uint32_t>(X509_subject_name_hash(x.get()));
  OpensslText subject(name_oneline(X509_get_subject_name(x.get())));
  if (!subject) {
    libq_log(kModCommon, kLogError, "X509_get_issuer_name error\n");
    return -2;
  }
  name_value(subject.get(), "/CN=", info->cn, sizeof info->cn);
  name_value(subject.get(), "/O=", info->org, sizeof info->org);
  asn1_time_text(X509_get0_notAfter(x.get()), info->expiry, sizeof info->expiry);
  return 0;
}

DL_EXPORT int dl_get_ca_info_ex(const char *path, dl_ca_info_ex *info, int flags,
                                dl_cert_result *result) {
  if (result == nullptr || path == nullptr || info == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    set_status(result, kStatusBadArgument);
    return -1;
  }
  memset(result, 0, sizeof *result);
  memset(info, 0, sizeof *info);
  BioPtr bio;
  X509Ptr x(load_for_info(path, &bio));
  if (!x) {
    result->status = kStatusBadArgument;
    return -1;
  }
  info->version = static_cast<uint8_t>(X509_get_version(x.get()) + 1);
  serial_text(X509_get0_serialNumber(x.get()), info->serial, sizeof info->serial);
  OpensslText issuer(name_oneline(X509_get_issuer_name(x.get())));
  if (!issuer) {
    libq_log(kModCommon, kLogError, "X509_get_issuer_name error\n");
    result->status = kStatusBadArgument;
    return -1;
  }
  short_name(issuer.get(), info->issuer, sizeof info->issuer);
  OpensslText subject(name_oneline(X509_get_subject_name(x.get())));
  if (!subject) {
    libq_log(kModCommon, kLogError, "X509_get_subject_name error\n");
    result->status = kStatusBadArgument;
    return -1;
  }
  short_name(subject.get(), info->subject, sizeof info->subject);
  asn1_time_text(X509_get0_notAfter(x.get()), info->valid_to, sizeof info->valid_to);
  asn1_time_text(X509_get0_notBefore(x.get()), info->valid_from, sizeof info->valid_from);
  const X509_ALGOR *sig_alg = nullptr;
  X509_get0_signature(nullptr, &sig_alg, x.get());
  const ASN1_OBJECT *sig_obj = nullptr;
  if (sig_alg != nullptr) X509_ALGOR_get0(&sig_obj, nullptr, nullptr, sig_alg);
  object_text(sig_obj, info->sig_alg, sizeof info->sig_alg);
  ASN1_OBJECT *key_obj = nullptr;
  X509_PUBKEY *pubkey = X509_get_X509_PUBKEY(x.get());
  if (pubkey != nullptr) X509_PUBKEY_get0_param(&key_obj, nullptr, nullptr, nullptr, pubkey);
  object_text(key_obj, info->pubkey_alg, sizeof info->pubkey_alg);
  EVP_PKEY *key = X509_get0_pubkey(x.get());
  info->pubkey_bits = key != nullptr ? EVP_PKEY_bits(key) : 0;
  ERR_clear_error();
  info->hash = static_cast<uint32_t>(hash_cert_file(path));
  int extensions = X509_get_ext_count(x.get());
  info->ext_count = extensions > 0 ? extensions : 0;
  if ((flags & kClientFlag) != 0) {
    libq_log(kModCommon, kLogInfo, "client cert\n");
    if (OPENSSL_init_ssl(0, nullptr) != 1) {
      libq_log(kModCommon, kLogError, "SSL_library_init error\n");
      result->status = kStatusLibrary;
      return -1;
    }
    fill_client_key(bio.get(), info);
  }
  return 0;
}

}  // extern "C"

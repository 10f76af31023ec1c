// The phone's RSA key: the one already in the key file, else a new one.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr unsigned long kPublicExponent = 65537;
// OpenSSL's own bounds; beyond the upper one generation would run for
// hours.
constexpr int kMinBits = 512;
constexpr int kMaxBits = 16384;
constexpr mode_t kKeyFileMode = 0600;

struct RsaFree {
  void operator()(RSA *r) const noexcept { RSA_free(r); }
};
struct BnFree {
  void operator()(BIGNUM *b) const noexcept { BN_free(b); }
};

// A key file is read without a pass phrase: never ask on a terminal.
int no_password(char *, int, int, void *) noexcept { return 0; }

EVP_PKEY *generate_rsa(int bits) {
  if (bits < kMinBits || bits > kMaxBits) return nullptr;
  std::unique_ptr<BIGNUM, BnFree> e(BN_new());
  std::unique_ptr<RSA, RsaFree> rsa(RSA_new());
  PkeyPtr key(EVP_PKEY_new());
  if (!e || !rsa || !key || BN_set_word(e.get(), kPublicExponent) != 1) return nullptr;
  if (RSA_generate_key_ex(rsa.get(), bits, e.get(), nullptr) != 1) return nullptr;
  if (EVP_PKEY_assign_RSA(key.get(), rsa.get()) != 1) return nullptr;
  rsa.release();
  return key.release();
}

}  // namespace

BIO *new_private_file(const char *path) {
  if (path == nullptr) return nullptr;
  (void)unlink(path);
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kKeyFileMode);
  if (fd < 0) return nullptr;
  BIO *bio = BIO_new_fd(fd, BIO_CLOSE);
  if (bio == nullptr) {
    close(fd);
    (void)unlink(path);
  }
  return bio;
}

bool write_pem(BIO *out, X509 *x, EVP_PKEY *key) {
  return out != nullptr && (x == nullptr || PEM_write_bio_X509(out, x) == 1) &&
         (key == nullptr ||
          PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr) == 1) &&
         BIO_flush(out) == 1;
}

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT int dl_cert_build_rsa_key(const char *key_path, int bits, EVP_PKEY **key_out,
                                    int *existed_out) {
  if (key_out == nullptr) return -1;
  if (key_path != nullptr && access(key_path, F_OK) == 0) {
    BioPtr bio(BIO_new_file(key_path, "r"));
    PkeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, no_password, nullptr) : nullptr);
    if (key) {
      if (existed_out != nullptr) *existed_out = 1;
      *key_out = key.release();
      return 0;
    }
    ERR_clear_error();
    libq_log(kModCommon, kLogError, "prikey err,create new\n");
    (void)unlink(key_path);
  }
  EVP_PKEY *key = generate_rsa(bits);
  if (key == nullptr) {
    ERR_clear_error();
    return -1;
  }
  *key_out = key;
  return 0;
}

DL_EXPORT int dl_cert_write_key(const char *key_path, int unused, EVP_PKEY *key) {
  (void)unused;
  // A private key file is for the owner only.
  BioPtr out(new_private_file(key_path));
  if (!out) return -1;
  if (!write_pem(out.get(), nullptr, key)) {
    // Half a key is no key: nothing is left behind.
    ERR_clear_error();
    out.reset();
    (void)unlink(key_path);
    return -1;
  }
  return 0;
}

}  // extern "C"

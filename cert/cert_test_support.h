// Certificates, keys and trust directories for the certificate tests:
// made with OpenSSL's API (so that serials, times and signatures can be
// anything), read back with the openssl command as the independent check.
#ifndef QUARRY_CERT_CERT_TEST_SUPPORT_H
#define QUARRY_CERT_CERT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace cert_test {

struct PkeyFree {
  void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};
struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};
using Key = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Cert = std::unique_ptr<X509, X509Free>;

Key ec_key();
Key rsa_key(int bits);

struct CertRecipe {
  std::string subject = "/CN=Test Cert/O=Test Org";
  std::vector<unsigned char> serial = {0x01};
  bool negative_serial = false;
  // ASN1_TIME_set_string forms: 13 characters UTCTime, 15 GeneralizedTime.
  std::string not_before = "200101000000Z";
  std::string not_after = "491231235959Z";
  bool ca = false;
  int extra_extensions = 0;  // subjectKeyIdentifier-like comment extensions
  const EVP_MD *md = EVP_sha256();
};

// A certificate for |key| issued by |issuer| with |issuer_key| (both null:
// self-signed).
Cert make_cert(const CertRecipe &recipe, EVP_PKEY *key, X509 *issuer = nullptr,
               EVP_PKEY *issuer_key = nullptr);

// A self-signed certificate of |recipe| with a new EC key, written to |path|
// (DER when |der|); returns |path|.
std::string write_self_signed(const std::string &path, const CertRecipe &recipe, bool der = false);

void write_pem(const std::string &path, X509 *x, bool append = false);
void write_der(const std::string &path, X509 *x);
// PEM private key, encrypted with AES-256 when |password| is given.
void write_key(const std::string &path, EVP_PKEY *key, const char *password = nullptr,
               bool append = false);

Cert read_pem(const std::string &path);

// Runs |command| through the shell; its standard output, and the exit
// status in |status| when given.
std::string run(const std::string &command, int *status = nullptr);
std::string quote(const std::string &s);
std::string trim(const std::string &s);
// "openssl x509 -noout -subject_hash" of |path| (PEM or DER).
std::string openssl_hash(const std::string &path);
bool is_symlink(const std::string &path);
std::string link_target(const std::string &path);

// A fresh settings record whose certificate paths point into a temporary
// directory: trust_ca_dir "<tmp>/trust/", server_cert_path
// "<tmp>/root/server/WebServer.pem". A log capture at every level.
class CertTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::string trust() const { return dir_.path() + "/trust/"; }
  std::string device() const { return dir_.path() + "/root/server/WebServer.pem"; }
  std::string file(const std::string &name) const { return dir_.file(name); }
  void set_text(int option, const std::string &value);
  void set_method(unsigned method);
  std::string hash_name(const std::string &cert_path);

  quarry_test::TempDir dir_;
  std::unique_ptr<quarry_test::LogCapture> log_;
};

}  // namespace cert_test

#endif  // QUARRY_CERT_CERT_TEST_SUPPORT_H

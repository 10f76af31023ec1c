#include "cert/cert_test_support.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quarry.h"

namespace cert_test {

namespace {

struct BioFree {
  void operator()(BIO *b) const { BIO_free(b); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

X509_NAME *parse_simple_name(const std::string &subject) {
  X509_NAME *name = X509_NAME_new();
  size_t at = 1;
  while (at < subject.size()) {
    size_t end = subject.find('/', at);
    if (end == std::string::npos) end = subject.size();
    std::string element = subject.substr(at, end - at);
    size_t eq = element.find('=');
    std::string type = element.substr(0, eq);
    std::string value = element.substr(eq + 1);
    X509_NAME_add_entry_by_txt(name, type.c_str(), MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char *>(value.c_str()), -1, -1, 0);
    at = end + 1;
  }
  return name;
}

void add_ext(X509 *x, X509 *issuer, int nid, const char *value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, x, nullptr, nullptr, 0);
  X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (ext == nullptr) return;
  X509_add_ext(x, ext, -1);
  X509_EXTENSION_free(ext);
}

}  // namespace

Key ec_key() { return Key(EVP_EC_gen("P-256")); }

Key rsa_key(int bits) { return Key(EVP_RSA_gen(static_cast<unsigned>(bits))); }

Cert make_cert(const CertRecipe &recipe, EVP_PKEY *key, X509 *issuer, EVP_PKEY *issuer_key) {
  Cert x(X509_new());
  X509_set_version(x.get(), 2);
  ASN1_INTEGER *serial = X509_get_serialNumber(x.get());
  ASN1_STRING_set(serial, recipe.serial.data(), static_cast<int>(recipe.serial.size()));
  if (recipe.negative_serial) serial->type = V_ASN1_NEG_INTEGER;
  X509_NAME *name = parse_simple_name(recipe.subject);
  X509_set_subject_name(x.get(), name);
  X509_set_issuer_name(x.get(), issuer != nullptr ? X509_get_subject_name(issuer) : name);
  X509_NAME_free(name);
  ASN1_TIME_set_string(X509_getm_notBefore(x.get()), recipe.not_before.c_str());
  ASN1_TIME_set_string(X509_getm_notAfter(x.get()), recipe.not_after.c_str());
  X509_set_pubkey(x.get(), key);
  X509 *signer = issuer != nullptr ? issuer : x.get();
  if (recipe.ca) {
    add_ext(x.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
    add_ext(x.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  }
  for (int i = 0; i < recipe.extra_extensions; ++i) {
    add_ext(x.get(), signer, NID_netscape_comment, ("comment " + std::to_string(i)).c_str());
  }
  X509_sign(x.get(), issuer_key != nullptr ? issuer_key : key, recipe.md);
  return x;
}

std::string write_self_signed(const std::string &path, const CertRecipe &recipe, bool der) {
  Key key = ec_key();
  Cert x = make_cert(recipe, key.get());
  if (der) {
    write_der(path, x.get());
  } else {
    write_pem(path, x.get());
  }
  return path;
}

void write_pem(const std::string &path, X509 *x, bool append) {
  Bio bio(BIO_new_file(path.c_str(), append ? "a" : "w"));
  PEM_write_bio_X509(bio.get(), x);
}

void write_der(const std::string &path, X509 *x) {
  Bio bio(BIO_new_file(path.c_str(), "w"));
  i2d_X509_bio(bio.get(), x);
}

void write_key(const std::string &path, EVP_PKEY *key, const char *password, bool append) {
  Bio bio(BIO_new_file(path.c_str(), append ? "a" : "w"));
  if (password != nullptr) {
    PEM_write_bio_PrivateKey(bio.get(), key, EVP_aes_256_cbc(), nullptr, 0, nullptr,
                             const_cast<char *>(password));
  } else {
    PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  }
}

Cert read_pem(const std::string &path) {
  Bio bio(BIO_new_file(path.c_str(), "r"));
  return Cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

std::string run(const std::string &command, int *status) {
  std::string out;
  FILE *p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int rc = pclose(p);
  if (status != nullptr) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

std::string quote(const std::string &s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

std::string trim(const std::string &s) {
  size_t a = s.find_first_not_of(" \n\r\t");
  size_t b = s.find_last_not_of(" \n\r\t");
  return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

std::string openssl_hash(const std::string &path) {
  std::string form = run("grep -q BEGIN " + quote(path) + " && echo PEM || echo DER");
  return trim(run("openssl x509 -noout -subject_hash -inform " + trim(form) + " -in " +
                  quote(path) + " 2>/dev/null"));
}

bool is_symlink(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

std::string link_target(const std::string &path) {
  char buf[4096];
  ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
  return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

void CertTest::SetUp() {
  dl_config_init();
  ASSERT_FALSE(dir_.path().empty());
  set_text(DL_OPT_TRUST_CA_DIR, trust());
  set_text(DL_OPT_SERVER_CERT_PATH, device());
  log_ = std::make_unique<quarry_test::LogCapture>();
}

void CertTest::TearDown() {
  log_.reset();
  dl_exit();
}

void CertTest::set_text(int option, const std::string &value) {
  ASSERT_EQ(dl_set_option(option, const_cast<char *>(value.c_str())), 0);
}

void CertTest::set_method(unsigned method) {
  // Written directly: the option refuses selectors above 5, which some
  // tests need.
  pthread_mutex_lock(&g_dl_cfg.cfg_lock);
  g_dl_cfg.ssl_method = method;
  pthread_mutex_unlock(&g_dl_cfg.cfg_lock);
}

std::string CertTest::hash_name(const std::string &cert_path) { return openssl_hash(cert_path); }

}  // namespace cert_test

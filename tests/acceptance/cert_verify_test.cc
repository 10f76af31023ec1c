// Certificate verification, and key, request and client certificate
// generation, checked with the openssl command line.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/acceptance/capture.h"
#include "tests/acceptance/cert_pki.h"
#include "tests/support/log_capture.h"

namespace {

using cert_pki::hex8;
using cert_pki::logged;
using cert_pki::Pki;
using cert_pki::run;
using quarry_test::file_exists;
using quarry_test::read_file;

constexpr unsigned kCommon = 2;
constexpr int kInfo = 6;

class Verify : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Pki::get().ok()); }
  std::string pki(const std::string &name) const { return Pki::get().file(name); }
  // Runs the verification with the root CA as CA file and no directory.
  int verify(const std::string &cert, int flags = 0, const char *ca_file = nullptr) {
    std::string ca = ca_file ? ca_file : pki("ca.pem");
    memset(&result_, 'x', sizeof(result_));
    acceptance::StdoutCapture out;
    int rc = dl_cert_verify(cert.c_str(), nullptr, ca.c_str(), flags, &result_);
    stdout_ = out.take();
    return rc;
  }
  // Runs the verification with the hashed directory |dir| and, as CA file,
  // a CA that did not sign anything, so only the directory can vouch.
  int verify_in_dir(const std::string &cert, const std::string &dir) {
    memset(&result_, 'x', sizeof(result_));
    acceptance::StdoutCapture out;
    int rc = dl_cert_verify(cert.c_str(), dir.c_str(), pki("other.pem").c_str(), 0, &result_);
    out.take();
    return rc;
  }
  void set_method(uint32_t method) { ASSERT_EQ(0, dl_set_option(DL_OPT_SSL_METHOD, &method)); }

  cert_pki::Settings set_;
  quarry_test::LogCapture log_;
  dl_cert_result result_;
  std::string stdout_;
};

TEST_F(Verify, ACertificateOfTheCaFileVerifies) {
  EXPECT_EQ(0, verify(pki("leaf.pem"))) << log_.text();
  EXPECT_EQ(0, result_.status);
  EXPECT_STREQ("", result_.msg);
  EXPECT_TRUE(log_.has(kCommon, kInfo, "OK\n")) << log_.text();
  EXPECT_NE(std::string::npos, stdout_.find(pki("leaf.pem") + ": \n")) << stdout_;
}

TEST_F(Verify, ADerCertificateVerifiesAgainstAHashedDirectory) {
  std::string dir = set_.dir().path() + "/hashed";
  ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
  set_.dir().write("hashed/" + hex8(Pki::hash_of(pki("ca.pem"))) + ".0", read_file(pki("ca.pem")));
  EXPECT_EQ(0, verify_in_dir(pki("leaf.der"), dir)) << log_.text();
  EXPECT_EQ(0, result_.status);
}

TEST_F(Verify, AnInstalledCaVerifiesThroughTheAllCaDirectory) {
  std::string ca = set_.dir().write("ca.pem", read_file(pki("ca.pem")));
  ASSERT_EQ(0, dl_install_ca(ca.c_str()));
  EXPECT_EQ(0, verify_in_dir(pki("leaf.pem"), set_.trust() + "ca/")) << log_.text();
  EXPECT_EQ(0, result_.status);
}

TEST_F(Verify, AnExpiredCertificateIsStatus5) {
  EXPECT_EQ(-1, verify(pki("expired.pem")));
  EXPECT_EQ(5, result_.status);
  EXPECT_STREQ("verify err:certificate has expired", result_.msg);
}

TEST_F(Verify, ANotYetValidCertificateIsStatus4) {
  EXPECT_EQ(-1, verify(pki("future.pem")));
  EXPECT_EQ(4, result_.status);
  EXPECT_STREQ("verify err:certificate is not yet valid", result_.msg);
}

TEST_F(Verify, AMissingIssuerIsStatus6) {
  EXPECT_EQ(-1, verify(pki("orphan.pem")));
  EXPECT_EQ(6, result_.status);
  EXPECT_STREQ("verify err:unable to get local issuer certificate", result_.msg);
}

TEST_F(Verify, AnIssuerOfTheSameNameButAnotherKeyIsASignatureFailure) {
  std::string same = pki("same.pem");
  EXPECT_EQ(-1, verify(pki("leaf.pem"), 0, same.c_str()));
  EXPECT_EQ(3, result_.status);
  EXPECT_STREQ("verify err:certificate signature failure", result_.msg);
}

TEST_F(Verify, AMissingCertificateFileIsStatus11WithAnEmptyText) {
  EXPECT_EQ(-1, verify(set_.dir().file("none.pem")));
  EXPECT_EQ(11, result_.status);
  EXPECT_STREQ("verify err:", result_.msg);
  EXPECT_TRUE(logged(log_, "Bio_new_file error ca_file\n")) << log_.text();
}

TEST_F(Verify, AnUnloadableCaFileIsStatus2) {
  std::string missing = set_.dir().file("none-ca.pem");
  EXPECT_EQ(-1, verify(pki("leaf.pem"), 0, missing.c_str()));
  EXPECT_EQ(2, result_.status);
}

TEST_F(Verify, NullArguments) {
  EXPECT_EQ(-1, dl_cert_verify(pki("leaf.pem").c_str(), nullptr, nullptr, 0, nullptr));
  result_.status = 0;
  EXPECT_EQ(-1, dl_cert_verify(nullptr, nullptr, nullptr, 0, &result_));
  EXPECT_EQ(1, result_.status);
  EXPECT_TRUE(logged(log_, "Invalid Parameter\n"));
}

TEST_F(Verify, AdvanceCheckOfAGoodPairThenVerifies) {
  set_method(3);
  EXPECT_EQ(0, verify(pki("leaf_pair.pem"), 1)) << log_.text();
  EXPECT_EQ(0, result_.status);
  EXPECT_TRUE(log_.has(kCommon, kInfo, "verify advance\n")) << log_.text();
}

TEST_F(Verify, AdvanceCheckRefusesMethod4BeforeVerifying) {
  set_method(4);
  EXPECT_EQ(-1, verify(pki("leaf_pair.pem"), 1));
  EXPECT_EQ(7, result_.status);
  EXPECT_TRUE(logged(log_, "Wrong method")) << log_.text();
  EXPECT_FALSE(log_.has(kCommon, kInfo, "OK\n"));
}

TEST_F(Verify, AdvanceCheckOfAMismatchedKeyIsStatus10) {
  set_method(3);
  EXPECT_EQ(-1, verify(pki("leaf_wrongkey.pem"), 1));
  EXPECT_EQ(10, result_.status);
  EXPECT_TRUE(logged(log_, "Private key does not match the certificate public key\n"))
      << log_.text();
}

// --- key, request and client certificate -----------------------------------

class Generate : public Verify {
 protected:
  void SetUp() override {
    Verify::SetUp();
    ASSERT_EQ(0, dl_set_option(DL_OPT_CERT_GEN_PARAM, "0123456789abcdefXYZ"));
  }
  std::string pubkey_of_key(const std::string &key) {
    return run("openssl pkey -pubout -in '" + key + "'");
  }
  std::string pubkey_of_csr(const std::string &csr) {
    return run("openssl req -noout -pubkey -in '" + csr + "'");
  }
};

TEST_F(Generate, TheSameParameterAndCommonNameGiveTheSameKey) {
  std::string csr1 = set_.dir().file("1.csr"), key1 = set_.dir().file("1.key");
  std::string csr2 = set_.dir().file("2.csr"), key2 = set_.dir().file("2.key");
  ASSERT_EQ(0, dl_cert_build_csr_req_file(csr1.c_str(), key1.c_str(), "/CN=phone1/O=Acc", 1024));
  EXPECT_TRUE(log_.has(kCommon, kInfo, "key bits [1024], subject: [/CN=phone1/O=Acc]\n"))
      << log_.text();
  ASSERT_EQ(0, dl_cert_build_csr_req_file(csr2.c_str(), key2.c_str(), "/CN=phone1/O=Acc", 1024));
  EXPECT_NE("!failed", pubkey_of_key(key1));
  EXPECT_EQ(pubkey_of_key(key1), pubkey_of_key(key2));
  EXPECT_EQ(pubkey_of_key(key1), pubkey_of_csr(csr1));
  EXPECT_NE("!failed", run("openssl req -noout -verify -in '" + csr1 + "'"));
  EXPECT_EQ("subject=CN = phone1, O = Acc", run("openssl req -noout -subject -in '" + csr1 + "'"));
}

TEST_F(Generate, AnotherCommonNameGivesAnotherKey) {
  std::string key1 = set_.dir().file("1.key"), key2 = set_.dir().file("2.key");
  ASSERT_EQ(0, dl_cert_build_csr_req_file(set_.dir().file("1.csr").c_str(), key1.c_str(),
                                          "/CN=phone1", 1024));
  ASSERT_EQ(0, dl_cert_build_csr_req_file(set_.dir().file("2.csr").c_str(), key2.c_str(),
                                          "/CN=phone2", 1024));
  EXPECT_NE(pubkey_of_key(key1), pubkey_of_key(key2));
}

TEST_F(Generate, AnExistingKeyIsUsed) {
  std::string key = set_.dir().write("k.pem", read_file(pki("leaf.key")));
  std::string csr = set_.dir().file("k.csr");
  ASSERT_EQ(0, dl_cert_build_csr_req_file(csr.c_str(), key.c_str(), "/CN=phone1", 1024));
  EXPECT_EQ(pubkey_of_key(pki("leaf.key")), pubkey_of_csr(csr));
}

TEST_F(Generate, AnUnreadableKeyFileIsReplaced) {
  std::string key = set_.dir().write("k.pem", "garbage\n");
  ASSERT_EQ(0, dl_cert_build_csr_req_file(set_.dir().file("k.csr").c_str(), key.c_str(),
                                          "/CN=phone1", 1024));
  EXPECT_TRUE(logged(log_, "prikey err,create new\n")) << log_.text();
  EXPECT_NE("!failed", run("openssl pkey -noout -check -in '" + key + "'"));
}

TEST_F(Generate, CsrNullArguments) {
  EXPECT_EQ(-1, dl_cert_build_csr_req_file(nullptr, "k", "/CN=a", 1024));
  EXPECT_EQ(-1, dl_cert_build_csr_req_file("c", nullptr, "/CN=a", 1024));
  EXPECT_EQ(-1, dl_cert_build_csr_req_file("c", "k", nullptr, 1024));
  EXPECT_TRUE(logged(log_, "Invalid Parameter\n"));
}

TEST_F(Generate, BuildRsaKeyReturnsAnExistingKey) {
  EVP_PKEY *key = nullptr;
  int existed = 0;
  ASSERT_EQ(0, dl_cert_build_rsa_key(pki("leaf.key").c_str(), 1024, &key, &existed));
  EXPECT_EQ(1, existed);
  ASSERT_NE(nullptr, key);
  EXPECT_EQ(2048, EVP_PKEY_get_bits(key));
  std::string out = set_.dir().file("written.pem");
  set_.dir().write("written.pem", "old");
  EXPECT_EQ(0, dl_cert_write_key(out.c_str(), 0, key));
  EXPECT_EQ(pubkey_of_key(pki("leaf.key")), pubkey_of_key(out));
  EXPECT_EQ(std::string::npos, read_file(out).find("ENCRYPTED"));
  EVP_PKEY_free(key);
}

TEST_F(Generate, DoSubjectParsesEscapesAndSkipsUnknownTypes) {
  X509_NAME *name = do_subject("/CN=a\\/b/XX=skip/O=/O=Org", MBSTRING_UTF8);
  ASSERT_NE(nullptr, name);
  ASSERT_EQ(2, X509_NAME_entry_count(name));
  char value[64];
  EXPECT_EQ(3, X509_NAME_get_text_by_NID(name, NID_commonName, value, sizeof(value)));
  EXPECT_STREQ("a/b", value);
  EXPECT_EQ(3, X509_NAME_get_text_by_NID(name, NID_organizationName, value, sizeof(value)));
  EXPECT_STREQ("Org", value);
  X509_NAME_free(name);
}

TEST_F(Generate, DoSubjectRefusesMalformedStrings) {
  EXPECT_EQ(nullptr, do_subject("CN=a", MBSTRING_UTF8));
  EXPECT_EQ(nullptr, do_subject("/CN=a\\", MBSTRING_UTF8));
  EXPECT_EQ(nullptr, do_subject("/CN", MBSTRING_UTF8));
  X509_NAME *empty = do_subject("/", MBSTRING_UTF8);
  ASSERT_NE(nullptr, empty);
  EXPECT_EQ(0, X509_NAME_entry_count(empty));
  X509_NAME_free(empty);
}

TEST_F(Generate, ClientCertificateSignedByTheCa) {
  std::string key = set_.dir().file("c.key"), cert = set_.dir().file("c.pem");
  ASSERT_EQ(0, dl_generate_client_cert(pki("ca.pem").c_str(), pki("ca.key").c_str(), key.c_str(),
                                       cert.c_str(), "/CN=a\\/b/O=Acc", 1024))
      << log_.text();
  EXPECT_EQ("subject=CN = a/b, O = Acc", run("openssl x509 -noout -subject -in '" + cert + "'"));
  EXPECT_EQ(Pki::x509(pki("ca.pem"), "subject"), Pki::x509(cert, "issuer"));
  EXPECT_EQ("615C", Pki::x509(cert, "serial"));  // the raw text "a\" up to the first "/"
  std::string text = run("openssl x509 -noout -text -in '" + cert + "'");
  EXPECT_NE(std::string::npos, text.find("Version: 3 (0x2)"));
  EXPECT_NE(std::string::npos, text.find("Signature Algorithm: md5WithRSAEncryption"));
  // The fixed start 1393631232, valid for 630720000 seconds.
  EXPECT_EQ("Feb 28 23:47:12 2014 GMT", Pki::x509(cert, "startdate"));
  EXPECT_EQ("Feb 23 23:47:12 2034 GMT", Pki::x509(cert, "enddate"));
  EXPECT_EQ(pubkey_of_key(key), pubkey_of_key(cert));  // the key follows the certificate
  EXPECT_NE(std::string::npos, read_file(cert).find("PRIVATE KEY-----"));
}

TEST_F(Generate, ClientCertificateWithAForeignCaKeyFails) {
  std::string cert = set_.dir().file("c.pem");
  EXPECT_EQ(-1, dl_generate_client_cert(pki("ca.pem").c_str(), pki("other.key").c_str(),
                                        set_.dir().file("c.key").c_str(), cert.c_str(),
                                        "/CN=x", 1024));
  EXPECT_TRUE(logged(log_, "CA certificate and CA private key do not match\n")) << log_.text();
  EXPECT_FALSE(file_exists(cert));
}

TEST_F(Generate, ClientCertificateFailures) {
  EXPECT_EQ(-1, dl_generate_client_cert(nullptr, "k", "k", "c", "/CN=x", 1024));
  EXPECT_TRUE(logged(log_, "Invalid Parameter\n"));
  EXPECT_EQ(-1, dl_generate_client_cert(set_.dir().file("none").c_str(), pki("ca.key").c_str(),
                                        set_.dir().file("c.key").c_str(),
                                        set_.dir().file("c.pem").c_str(), "/CN=x", 1024));
  EXPECT_TRUE(logged(log_, "Bio_new_file error root ca\n")) << log_.text();
}

}  // namespace

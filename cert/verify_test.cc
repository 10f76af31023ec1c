// Verification of a certificate file, with openssl verify as the oracle
// for the X.509 outcome.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <string>

#include "cert/cert_test_support.h"
#include "quarry.h"

namespace {

using cert_test::CertRecipe;
using cert_test::quote;
using cert_test::run;

class Verify : public cert_test::CertTest {
 protected:
  void SetUp() override {
    CertTest::SetUp();
    ca_key_ = cert_test::ec_key();
    CertRecipe recipe;
    recipe.subject = "/CN=Verify CA";
    recipe.ca = true;
    ca_ = cert_test::make_cert(recipe, ca_key_.get());
    cert_test::write_pem(file("ca.pem"), ca_.get());
    ASSERT_EQ(dl_install_ca(file("ca.pem").c_str()), 0);
    ca_dir_ = trust() + "ca/";
  }
  std::string leaf(const std::string &name, CertRecipe recipe, EVP_PKEY *signer = nullptr) {
    cert_test::Key key = cert_test::ec_key();
    cert_test::Cert x = cert_test::make_cert(recipe, key.get(), ca_.get(),
                                             signer != nullptr ? signer : ca_key_.get());
    cert_test::write_pem(file(name), x.get());
    return file(name);
  }
  // The error number "openssl verify" reports against the CA, 0 for OK.
  int openssl_error(const std::string &path) {
    int status = -1;
    std::string out = run("openssl verify -no-CAfile -no-CApath -no-CAstore -CAfile " +
                              quote(file("ca.pem")) + " " + quote(path) + " 2>&1",
                          &status);
    if (status == 0) return 0;
    size_t at = out.find("error ");
    return at == std::string::npos ? -1 : atoi(out.c_str() + at + 6);
  }
  std::string expected_message(int error) {
    return std::string("verify err:") + X509_verify_cert_error_string(error);
  }
  int verify(const std::string &path, dl_cert_result *result, int flags = 0) {
    memset(result, 'r', sizeof *result);
    return dl_cert_verify(path.c_str(), ca_dir_.c_str(), nullptr, flags, result);
  }
  cert_test::Key ca_key_;
  cert_test::Cert ca_;
  std::string ca_dir_;
};

TEST_F(Verify, CertificateOfInstalledCaVerifies) {
  std::string path = leaf("good.pem", CertRecipe());
  ASSERT_EQ(openssl_error(path), 0);
  dl_cert_result result;
  EXPECT_EQ(verify(path, &result), 0);
  EXPECT_EQ(result.status, 0);
  EXPECT_STREQ(result.msg, "");
  EXPECT_TRUE(log_->has(2, 6, "OK\n")) << log_->text();
}

TEST_F(Verify, CaFileAloneIsEnough) {
  std::string path = leaf("good.pem", CertRecipe());
  dl_cert_result result;
  EXPECT_EQ(dl_cert_verify(path.c_str(), nullptr, file("ca.pem").c_str(), 0, &result), 0);
}

TEST_F(Verify, DerCertificateVerifies) {
  cert_test::Key key = cert_test::ec_key();
  cert_test::Cert x = cert_test::make_cert(CertRecipe(), key.get(), ca_.get(), ca_key_.get());
  cert_test::write_der(file("good.der"), x.get());
  dl_cert_result result;
  EXPECT_EQ(verify(file("good.der"), &result), 0);
}

TEST_F(Verify, ExpiredIsStatus5) {
  CertRecipe recipe;
  recipe.not_after = "210101000000Z";
  std::string path = leaf("expired.pem", recipe);
  ASSERT_EQ(openssl_error(path), X509_V_ERR_CERT_HAS_EXPIRED);
  dl_cert_result result;
  EXPECT_EQ(verify(path, &result), -1);
  EXPECT_EQ(result.status, 5);
  EXPECT_EQ(result.msg, expected_message(X509_V_ERR_CERT_HAS_EXPIRED));
  EXPECT_STREQ(result.msg, "verify err:certificate has expired");
  char line[128];
  snprintf(line, sizeof line, "verify cb error 10 at 0 depth lookup:%s\n",
           X509_verify_cert_error_string(10));
  EXPECT_TRUE(log_->has(2, 5, line)) << log_->text();
}

TEST_F(Verify, NotYetValidIsStatus4) {
  CertRecipe recipe;
  recipe.not_before = "400101000000Z";
  std::string path = leaf("future.pem", recipe);
  ASSERT_EQ(openssl_error(path), X509_V_ERR_CERT_NOT_YET_VALID);
  dl_cert_result result;
  EXPECT_EQ(verify(path, &result), -1);
  EXPECT_EQ(result.status, 4);
  EXPECT_EQ(result.msg, expected_message(X509_V_ERR_CERT_NOT_YET_VALID));
}

TEST_F(Verify, MissingIssuerIsStatus6) {
  cert_test::Key other_key = cert_test::ec_key();
  CertRecipe other_spec;
  other_spec.subject = "/CN=Unknown CA";
  cert_test::Cert other = cert_test::make_cert(other_spec, other_key.get());
  cert_test::Key key = cert_test::ec_key();
  cert_test::Cert x = cert_test::make_cert(CertRecipe(), key.get(), other.get(), other_key.get());
  cert_test::write_pem(file("orphan.pem"), x.get());
  ASSERT_EQ(openssl_error(file("orphan.pem")), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
  dl_cert_result result;
  EXPECT_EQ(verify(file("orphan.pem"), &result), -1);
  EXPECT_EQ(result.status, 6);
  EXPECT_EQ(result.msg, expected_message(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY));
}

TEST_F(Verify, BadSignatureIsStatus3) {
  cert_test::Key forger = cert_test::ec_key();
  std::string path = leaf("forged.pem", CertRecipe(), forger.get());
  ASSERT_EQ(openssl_error(path), X509_V_ERR_CERT_SIGNATURE_FAILURE);
  dl_cert_result result;
  EXPECT_EQ(verify(path, &result), -1);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.msg, expected_message(X509_V_ERR_CERT_SIGNATURE_FAILURE));
}

TEST_F(Verify, OtherErrorIsStatus11) {
  // A not-after time with month 13: OpenSSL's error 14, none of the listed
  // ones.
  cert_test::Key key = cert_test::ec_key();
  cert_test::Cert x = cert_test::make_cert(CertRecipe(), key.get(), ca_.get(), ca_key_.get());
  ASN1_STRING_set(X509_getm_notAfter(x.get()), "491399235959Z", 13);
  X509_sign(x.get(), ca_key_.get(), EVP_sha256());
  cert_test::write_pem(file("badtime.pem"), x.get());
  ASSERT_EQ(openssl_error(file("badtime.pem")), X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD);
  dl_cert_result result;
  EXPECT_EQ(verify(file("badtime.pem"), &result), -1);
  EXPECT_EQ(result.status, 11);
  EXPECT_EQ(result.msg, expected_message(X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD));
  dl_ca_info info;
  log_->clear();
  EXPECT_EQ(dl_get_ca_info(file("badtime.pem").c_str(), &info), 0);
  EXPECT_STREQ(info.expiry, "");
  EXPECT_TRUE(log_->has(2, 3, "Bad time value\n")) << log_->text();
}

TEST_F(Verify, NotACertificateIsStatus11WithEmptyErrorText) {
  std::string junk = dir_.write("junk.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n");
  dl_cert_result result;
  EXPECT_EQ(verify(junk, &result), -1);
  EXPECT_EQ(result.status, 11);
  EXPECT_STREQ(result.msg, "verify err:");
}

TEST_F(Verify, MissingFileIsStatus11WithEmptyErrorText) {
  dl_cert_result result;
  EXPECT_EQ(verify(file("missing.pem"), &result), -1);
  EXPECT_EQ(result.status, 11);
  EXPECT_STREQ(result.msg, "verify err:");
  EXPECT_TRUE(log_->has(2, 3, "Bio_new_file error ca_file\n")) << log_->text();
}

TEST_F(Verify, SelfSignedLeafIsAcceptedByTheCallback) {
  cert_test::Key key = cert_test::ec_key();
  CertRecipe recipe;
  recipe.subject = "/CN=self";
  cert_test::Cert x = cert_test::make_cert(recipe, key.get());
  cert_test::write_pem(file("self.pem"), x.get());
  EXPECT_EQ(openssl_error(file("self.pem")), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
  dl_cert_result result;
  EXPECT_EQ(verify(file("self.pem"), &result), 0);
  char line[128];
  snprintf(line, sizeof line, "verify cb error 18 at 0 depth lookup:%s\n",
           X509_verify_cert_error_string(18));
  EXPECT_TRUE(log_->has(2, 5, line)) << log_->text();
  EXPECT_TRUE(log_->has(2, 5, "/CN=self\n"));
}

TEST_F(Verify, BadCaFileOrDirectoryIsStatus2) {
  std::string path = leaf("good.pem", CertRecipe());
  dl_cert_result result;
  EXPECT_EQ(dl_cert_verify(path.c_str(), nullptr, file("nothing.pem").c_str(), 0, &result), -1);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(dl_cert_verify(path.c_str(), "", nullptr, 0, &result), -1);
  EXPECT_EQ(result.status, 2);
  EXPECT_STREQ(result.msg, "");
}

TEST_F(Verify, NullArguments) {
  dl_cert_result result = {};
  EXPECT_EQ(dl_cert_verify(nullptr, nullptr, nullptr, 0, &result), -1);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(dl_cert_verify("x", nullptr, nullptr, 0, nullptr), -1);
  EXPECT_EQ(log_->count(2, 3, "Invalid Parameter\n"), 2);
}

class VerifyAdvance : public Verify {
 protected:
  std::string pair(const char *password = nullptr, bool matching = true) {
    cert_test::Key key = cert_test::ec_key();
    cert_test::Cert x = cert_test::make_cert(CertRecipe(), key.get(), ca_.get(), ca_key_.get());
    cert_test::write_pem(file("pair.pem"), x.get());
    cert_test::Key other = cert_test::ec_key();
    cert_test::write_key(file("pair.pem"), matching ? key.get() : other.get(), password, true);
    return file("pair.pem");
  }
};

TEST_F(VerifyAdvance, UsablePairGoesOnToVerification) {
  dl_cert_result result;
  EXPECT_EQ(verify(pair(), &result, 1), 0);
  EXPECT_TRUE(log_->has(2, 6, "verify advance\n"));
  EXPECT_TRUE(log_->has(2, 6, "OK\n"));
}

TEST_F(VerifyAdvance, Selector4FailsBeforeVerifying) {
  set_method(4);
  dl_cert_result result;
  EXPECT_EQ(verify(pair(), &result, 1), -1);
  EXPECT_EQ(result.status, 7);
  EXPECT_STREQ(result.msg, "");
  EXPECT_TRUE(log_->has(2, 3, "Wrong method")) << log_->text();
  EXPECT_FALSE(log_->has(2, 6, "OK\n"));
  EXPECT_EQ(verify(pair(), &result, 0), 0);
}

TEST_F(VerifyAdvance, MissingOrForeignKeyIsStatus10) {
  dl_cert_result result;
  EXPECT_EQ(verify(pair(nullptr, false), &result, 1), -1);
  EXPECT_EQ(result.status, 10);
  EXPECT_STREQ(result.msg, "Private key does not match");
  std::string cert_only = leaf("cert.pem", CertRecipe());
  EXPECT_EQ(verify(cert_only, &result, 1), -1);
  EXPECT_EQ(result.status, 10);
}

TEST_F(VerifyAdvance, EncryptedKeyNeedsKeyPassword) {
  dl_cert_result result;
  std::string path = pair("secret");
  EXPECT_EQ(verify(path, &result, 1), -1);
  EXPECT_EQ(result.status, 10);
  set_text(DL_OPT_KEY_PASSWORD, "secret");
  EXPECT_EQ(verify(path, &result, 1), 0);
}

TEST_F(VerifyAdvance, FileOfOnlyARevocationListIsStatus8) {
  X509_CRL *crl = X509_CRL_new();
  X509_CRL_set_version(crl, 1);
  X509_CRL_set_issuer_name(crl, X509_get_subject_name(ca_.get()));
  ASN1_TIME *now = ASN1_TIME_set(nullptr, time(nullptr));
  X509_CRL_set1_lastUpdate(crl, now);
  ASN1_TIME_free(now);
  X509_CRL_sign(crl, ca_key_.get(), EVP_sha256());
  BIO *out = BIO_new_file(file("crl.pem").c_str(), "w");
  PEM_write_bio_X509_CRL(out, crl);
  BIO_free(out);
  X509_CRL_free(crl);
  dl_cert_result result;
  EXPECT_EQ(verify(file("crl.pem"), &result, 1), -1);
  EXPECT_EQ(result.status, 8);
  EXPECT_STREQ(result.msg, "Can't load public key\n");
  EXPECT_TRUE(log_->has(2, 3, "Can't load public key from ser_ca_file\n")) << log_->text();
}

TEST_F(VerifyAdvance, KeyOnlyOrMissingMethodIsStatus2) {
  cert_test::Key key = cert_test::ec_key();
  cert_test::write_key(file("key.pem"), key.get());
  dl_cert_result result;
  EXPECT_EQ(verify(file("key.pem"), &result, 1), -1);
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(log_->has(2, 3, "Can't open ca file ser_ca_file\n"));
  set_method(1);
  EXPECT_EQ(verify(pair(), &result, 1), -1);
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(log_->has(2, 3, "SSL_CTX_new error\n"));
}

}  // namespace

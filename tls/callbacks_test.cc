// The pass-phrase and verification callbacks.
#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>

#include "core/core.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;

struct StoreCtxFree {
  void operator()(X509_STORE_CTX *c) const { X509_STORE_CTX_free(c); }
};

class TlsCallbacks : public ::testing::Test {
 protected:
  void SetUp() override { dl_config_init(); }
  void TearDown() override { dl_exit(); }
  void set_password(const char *text) {
    quarry::CfgLock lock;
    quarry::copy_text_field(g_dl_cfg.key_password, text, sizeof g_dl_cfg.key_password);
  }
};

TEST_F(TlsCallbacks, PasswordFromSettingsIsWrittenTerminated) {
  set_password("s3cret");
  LogCapture log;
  char buf[64];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(password_cb(buf, sizeof buf, 0, nullptr), 6);
  EXPECT_STREQ(buf, "s3cret");
  EXPECT_TRUE(log.has(2, 6, "num is 64, pwd length:6\n")) << log.text();
}

TEST_F(TlsCallbacks, PasswordLongerThanBufferIsCutAndCountedAsWritten) {
  set_password("0123456789");
  char buf[5];
  EXPECT_EQ(password_cb(buf, sizeof buf, 1, nullptr), 4);
  EXPECT_STREQ(buf, "0123");
}

TEST_F(TlsCallbacks, PasswordFromUserDataHasNoTerminator) {
  char buf[8];
  memset(buf, 'x', sizeof buf);
  char user[] = "abc";
  EXPECT_EQ(password_cb(buf, sizeof buf, 0, user), 3);
  EXPECT_EQ(std::string(buf, 4), "abcx");
  char longer[] = "abcdefghijk";
  EXPECT_EQ(password_cb(buf, sizeof buf, 0, longer), 8);
  EXPECT_EQ(std::string(buf, 8), "abcdefgh");
}

TEST_F(TlsCallbacks, VerifyKeepsAPassedCheck) {
  EXPECT_EQ(cb(1, nullptr), 1);
  EXPECT_EQ(cb(2, nullptr), 2);
}

int verdict_for(int error) {
  std::unique_ptr<X509_STORE_CTX, StoreCtxFree> ctx(X509_STORE_CTX_new());
  X509_STORE_CTX_set_error(ctx.get(), error);
  return cb(0, ctx.get());
}

TEST_F(TlsCallbacks, VerifyAcceptsExactlyTheToleratedErrors) {
  for (int error : {X509_V_ERR_CRL_NOT_YET_VALID, X509_V_ERR_CRL_HAS_EXPIRED,
                    X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_INVALID_CA,
                    X509_V_ERR_PATH_LENGTH_EXCEEDED, X509_V_ERR_INVALID_PURPOSE,
                    X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION})
    EXPECT_EQ(verdict_for(error), 1) << error;
  for (int error : {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, X509_V_ERR_CERT_SIGNATURE_FAILURE,
                    X509_V_ERR_CERT_NOT_YET_VALID, X509_V_ERR_CERT_HAS_EXPIRED,
                    X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                    X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, X509_V_ERR_CERT_UNTRUSTED,
                    X509_V_ERR_CERT_REJECTED, X509_V_ERR_NO_ISSUER_PUBLIC_KEY})
    EXPECT_EQ(verdict_for(error), 0) << error;
}

TEST_F(TlsCallbacks, VerifyFailureIsLoggedWithSubjectAndError) {
  LogCapture log;
  EXPECT_EQ(verdict_for(X509_V_ERR_CERT_HAS_EXPIRED), 0);
  EXPECT_TRUE(log.has(2, 5, "\n")) << log.text();
  EXPECT_TRUE(log.has(2, 5, "verify cb error 10 at 0 depth lookup:certificate has expired\n"))
      << log.text();
}

}  // namespace

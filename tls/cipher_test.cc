// The cipher-list functions: their choice of list, log lines and results.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "core/core.h"
#include "tests/support/log_capture.h"
#include "tls/tls.h"

namespace {

using quarry::UniqueSslCtx;
using quarry_test::LogCapture;

class Cipher : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    log_ = std::make_unique<LogCapture>();
  }
  void TearDown() override {
    log_.reset();
    dl_exit();
  }
  void set_list(const char *text) { ASSERT_EQ(dl_set_option(DL_OPT_SSL_CIPHER_LIST, text), 0); }
  void set_method(uint32_t method) {
    quarry::CfgLock lock;
    g_dl_cfg.ssl_method = method;
  }
  static std::string names_of(SSL_CTX *ctx) {
    std::string names;
    STACK_OF(SSL_CIPHER) *list = SSL_CTX_get_ciphers(ctx);
    for (int i = 0; i < sk_SSL_CIPHER_num(list); ++i) {
      names += SSL_CIPHER_get_name(sk_SSL_CIPHER_value(list, i));
      names += ' ';
    }
    return names;
  }
  // The ciphers a context made for |method| ends up with.
  std::string chosen(int method) {
    UniqueSslCtx ctx(quarry::tls_context_new(method));
    EXPECT_EQ(dl_https_set_ssl_cipher(ctx.get()), 0);
    return names_of(ctx.get());
  }
  // The ciphers |text| gives such a context.
  std::string listed(int method, const char *text) {
    UniqueSslCtx ctx(quarry::tls_context_new(method));
    SSL_CTX_set_cipher_list(ctx.get(), text);
    return names_of(ctx.get());
  }
  std::unique_ptr<LogCapture> log_;
};

TEST_F(Cipher, EmptyListGivesDefault) {
  EXPECT_EQ(chosen(5), listed(5, "DEFAULT"));
  EXPECT_FALSE(log_->mentions("ssl cipher num"));
}

TEST_F(Cipher, ListSelectingSomethingIsUsedAsItIs) {
  set_list("AES128-SHA");
  set_method(5);
  std::string names = chosen(5);
  EXPECT_NE(names.find("AES128-SHA "), std::string::npos) << names;
  EXPECT_EQ(names.find("AES256-SHA "), std::string::npos) << names;
  EXPECT_TRUE(log_->mentions("ssl cipher num is "));
}

TEST_F(Cipher, ListSelectingNothingGivesTheFallbackWithoutALineOfItsOwn) {
  set_list("NO-SUCH-CIPHER");
  set_method(5);
  EXPECT_EQ(chosen(5), listed(5, "RSA:!EXP:!LOW:!NULL:!MD5:@STRENGTH"));
  EXPECT_TRUE(log_->has(2, 6, "set cipher list  ret 0\n")) << log_->text();
  EXPECT_FALSE(log_->mentions("set cipher list ret"));
}

TEST_F(Cipher, SecurityLevelInTheListLowersTheContextsLevel) {
  set_list("DEFAULT:@SECLEVEL=0");
  set_method(3);
  UniqueSslCtx ctx(quarry::tls_context_new(3));
  EXPECT_EQ(dl_https_set_ssl_cipher(ctx.get()), 0);
  EXPECT_EQ(SSL_CTX_get_security_level(ctx.get()), 0);
}

TEST_F(Cipher, SetWithoutContextIsRefused) {
  EXPECT_EQ(dl_https_set_ssl_cipher(nullptr), -1);
  EXPECT_TRUE(log_->has(2, 3, "Invaild paramter\n"));
}

TEST_F(Cipher, CheckCountsTheCiphersOfTheList) {
  set_method(5);
  EXPECT_EQ(dl_https_check_cipher_str("AES128-SHA"), 0);
  // The TLS 1.3 suites come with every list.
  int tls13 = 0;
  {
    UniqueSslCtx ctx(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_cipher_list(ctx.get(), "AES128-SHA");
    tls13 = sk_SSL_CIPHER_num(SSL_CTX_get_ciphers(ctx.get())) - 1;
  }
  EXPECT_TRUE(log_->has(2, 6, "ssl cipher num is " + std::to_string(tls13 + 1) + "\n"))
      << log_->text();
}

TEST_F(Cipher, CheckRefusesNull) {
  EXPECT_EQ(dl_https_check_cipher_str(nullptr), -1);
  EXPECT_TRUE(log_->has(2, 3, "Invaild paramter\n"));
}

TEST_F(Cipher, CheckRefusesAMethodAboveFive) {
  set_method(6);
  EXPECT_EQ(dl_https_check_cipher_str("DEFAULT"), -1);
  EXPECT_TRUE(log_->has(2, 3, "wrong method\n"));
}

TEST_F(Cipher, CheckUnderAMethodThatCannotBeMade) {
  set_method(2);
  EXPECT_EQ(dl_https_check_cipher_str("DEFAULT"), -1);
  EXPECT_TRUE(log_->has(2, 3, "SSL_CTX_new Error\n"));
}

TEST_F(Cipher, FallbackUnderAMethodThatCannotBeMade) {
  set_list("AES128-SHA");
  set_method(1);
  EXPECT_EQ(chosen(5), listed(5, "RSA:!EXP:!LOW:!NULL:!MD5:@STRENGTH"));
}

TEST_F(Cipher, CheckRefusesAnUnknownList) {
  set_method(0);
  EXPECT_EQ(dl_https_check_cipher_str("NOTHING-HERE"), -1);
  EXPECT_TRUE(log_->has(2, 6, "set cipher list  ret 0\n"));
}

}  // namespace

// The method table and what each context is made with.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include "core/core.h"
#include "tls/tls.h"

namespace {

using quarry::UniqueSslCtx;

int system_level() {
  UniqueSslCtx plain(SSL_CTX_new(TLS_client_method()));
  return SSL_CTX_get_security_level(plain.get());
}

TEST(TlsMethod, NumbersZeroToFiveAreKnown) {
  for (int m = 0; m <= 5; ++m) EXPECT_TRUE(quarry::tls_method_known(m)) << m;
  EXPECT_FALSE(quarry::tls_method_known(6));
  EXPECT_FALSE(quarry::tls_method_known(-1));
}

TEST(TlsMethod, Ssl2AndSsl3CannotBeMade) {
  EXPECT_EQ(quarry::tls_context_new(1), nullptr);
  EXPECT_EQ(quarry::tls_context_new(2), nullptr);
  EXPECT_EQ(quarry::tls_context_new(6), nullptr);
}

TEST(TlsMethod, FixedMethodsPinTheirVersion) {
  struct Row {
    int method;
    int version;
  };
  for (Row row : {Row{0, TLS1_VERSION}, Row{4, TLS1_1_VERSION}, Row{5, TLS1_2_VERSION}}) {
    UniqueSslCtx ctx(quarry::tls_context_new(row.method));
    ASSERT_NE(ctx, nullptr) << row.method;
    quarry::UniqueSsl ssl(SSL_new(ctx.get()));
    EXPECT_EQ(SSL_version(ssl.get()), row.version) << row.method;
  }
}

TEST(TlsMethod, NegotiatedMethodReachesTls13) {
  UniqueSslCtx ctx(quarry::tls_context_new(3));
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(ctx.get()), 0);  // no upper bound
  EXPECT_EQ(SSL_CTX_get_min_proto_version(ctx.get()), 0);
}

TEST(TlsMethod, Tls10And11GetSecurityLevelZeroOthersKeepTheSystems) {
  for (int method : {0, 4}) {
    UniqueSslCtx ctx(quarry::tls_context_new(method));
    EXPECT_EQ(SSL_CTX_get_security_level(ctx.get()), 0) << method;
  }
  for (int method : {3, 5}) {
    UniqueSslCtx ctx(quarry::tls_context_new(method));
    EXPECT_EQ(SSL_CTX_get_security_level(ctx.get()), system_level()) << method;
  }
}

TEST(TlsMethod, EndOfStreamWithoutCloseNotifyIsAnEnd) {
  for (int method : {0, 3, 4, 5}) {
    UniqueSslCtx ctx(quarry::tls_context_new(method));
    EXPECT_NE(SSL_CTX_get_options(ctx.get()) & SSL_OP_IGNORE_UNEXPECTED_EOF, 0u) << method;
  }
}

TEST(TlsMethod, WrongVersionReasons) {
  EXPECT_TRUE(quarry::tls_reason_is_wrong_version(267));
  EXPECT_TRUE(quarry::tls_reason_is_wrong_version(266));
  EXPECT_FALSE(quarry::tls_reason_is_wrong_version(1070));
  EXPECT_FALSE(quarry::tls_reason_is_wrong_version(0));
}

TEST(TlsMethod, FreshSessionHasNotFinishedItsHandshake) {
  UniqueSslCtx ctx(quarry::tls_context_new(3));
  quarry::UniqueSsl ssl(SSL_new(ctx.get()));
  EXPECT_FALSE(quarry::tls_handshake_finished(ssl.get()));
}

}  // namespace

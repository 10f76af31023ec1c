#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cctype>
#include <string>

#include "http/auth.h"
#include "http/auth_test_support.h"
#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using auth_test::AuthState;
using auth_test::base64;
using auth_test::md5_hex;
using quarry_test::LogCapture;

using auth_test::kError;
using auth_test::kHttp;

// The worked example of RFC 2617 section 3.5.
const std::string kUser = "Mufasa";
const std::string kPassword = "Circle Of Life";
const std::string kRealm = "testrealm@host.com";
const std::string kNonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
const std::string kOpaque = "5ccc069c403ebaf9f0171e9517f40e41";
const std::string kCnonce = "0a4f113b";
const std::string kUri = "/dir/index.html";
const std::string kRfcResponse = "6629fae49393a05397450978507c4ef1";

char *fixed_cnonce() { return strdup("0a4f113b"); }
char *failing_cnonce() { return nullptr; }
long clock_1700000000() { return 1700000000L; }
long clock_42() { return 42L; }

std::string ha1() { return md5_hex(kUser + ":" + kRealm + ":" + kPassword); }
std::string ha2(const std::string &method, const std::string &uri) {
  return md5_hex(method + ":" + uri);
}
std::string qop_response(const std::string &a1, const std::string &nc, const std::string &qop,
                         const std::string &a2) {
  return md5_hex(a1 + ":" + kNonce + ":" + nc + ":" + kCnonce + ":" + qop + ":" + a2);
}
std::string qop_line(const std::string &nc, const std::string &qop, const std::string &response,
                     const std::string &uri = kUri) {
  return "Authorization: Digest username=\"" + kUser + "\", realm=\"" + kRealm + "\", nonce=\"" +
         kNonce + "\", uri=\"" + uri + "\", cnonce=\"" + kCnonce + "\", nc=" + nc + ", qop=\"" +
         qop + "\", response=\"" + response + "\"";
}

class OutputDigest : public ::testing::Test {
 protected:
  void SetUp() override { quarry::auth_set_cnonce_source(fixed_cnonce); }
  void TearDown() override {
    quarry::auth_set_cnonce_source(nullptr);
    quarry::auth_set_clock(nullptr);
  }

  // Parses |challenge| into the state with the example's credentials.
  void challenge(const std::string &text) {
    state_->user = kUser.c_str();
    state_->password = kPassword.c_str();
    ASSERT_EQ(DL_AUTH_FINE, Curl_input_auth(state_.get(), 0, text.c_str()));
  }

  AuthState state_;
};

// ---- qop auth -----------------------------------------------------------------

TEST_F(OutputDigest, QopAuthAnswerMatchesTheRfcExample) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth,auth-int\", nonce=\"" + kNonce + "\"");
  const std::string expected = qop_response(ha1(), "00000001", "auth", ha2("GET", kUri));
  ASSERT_EQ(kRfcResponse, expected);
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(qop_line("00000001", "auth", expected) + "\r\n", state_.header());
}

TEST_F(OutputDigest, OpaqueIsEchoedAfterTheResponse) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\", opaque=\"" +
            kOpaque + "\"");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(qop_line("00000001", "auth", kRfcResponse) + ", opaque=\"" + kOpaque + "\"\r\n",
            state_.header());
}

TEST_F(OutputDigest, NonceCountRisesWithEveryAuthAnswer) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(2, state_->digest.nc);
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  const std::string expected = qop_response(ha1(), "00000002", "auth", ha2("GET", kUri));
  EXPECT_EQ(qop_line("00000002", "auth", expected) + "\r\n", state_.header());
  EXPECT_EQ(3, state_->digest.nc);
}

TEST_F(OutputDigest, StaleChallengeAnswersWithCountOne) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\", stale=true");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(qop_line("00000001", "auth", kRfcResponse) + "\r\n", state_.header());
}

TEST_F(OutputDigest, MethodEntersTheSecondHash) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "POST", kUri.c_str()));
  const std::string expected = qop_response(ha1(), "00000001", "auth", ha2("POST", kUri));
  EXPECT_EQ(qop_line("00000001", "auth", expected) + "\r\n", state_.header());
}

// ---- qop auth-int ------------------------------------------------------------

TEST_F(OutputDigest, AuthIntHashesMethodAndUriOnly) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth-int\", nonce=\"" + kNonce + "\"");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "POST", kUri.c_str()));
  const std::string expected = qop_response(ha1(), "00000001", "auth-int", ha2("POST", kUri));
  EXPECT_EQ(qop_line("00000001", "auth-int", expected) + "\r\n", state_.header());
}

TEST_F(OutputDigest, AuthIntKeepsTheNonceCount) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth-int\", nonce=\"" + kNonce + "\"");
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "POST", kUri.c_str()));
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "POST", kUri.c_str()));
  const std::string expected = qop_response(ha1(), "00000001", "auth-int", ha2("POST", kUri));
  EXPECT_EQ(qop_line("00000001", "auth-int", expected) + "\r\n", state_.header());
  EXPECT_EQ(1, state_->digest.nc);
}

// ---- MD5-sess, algorithm echo, no qop -----------------------------------------

TEST_F(OutputDigest, Md5SessLineEndsWithOpaqueThenAlgorithm) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\", opaque=\"" +
            kOpaque + "\", algorithm=MD5-sess");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  const std::string session = md5_hex(ha1() + ":" + kNonce + ":" + kCnonce);
  const std::string expected = qop_response(session, "00000001", "auth", ha2("GET", kUri));
  EXPECT_EQ(qop_line("00000001", "auth", expected) + ", opaque=\"" + kOpaque +
                "\", algorithm=\"MD5-sess\"\r\n",
            state_.header());
}

TEST_F(OutputDigest, AlgorithmIsEchoedAsTheServerWroteIt) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce +
            "\", algorithm=md5");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(qop_line("00000001", "auth", kRfcResponse) + ", algorithm=\"md5\"\r\n",
            state_.header());
}

TEST_F(OutputDigest, WithoutQopAnswersTheShortForm) {
  challenge("Digest realm=\"" + kRealm + "\", nonce=\"" + kNonce + "\"");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  const std::string expected = md5_hex(ha1() + ":" + kNonce + ":" + ha2("GET", kUri));
  EXPECT_EQ("Authorization: Digest username=\"" + kUser + "\", realm=\"" + kRealm + "\", nonce=\"" +
                kNonce + "\", uri=\"" + kUri + "\", response=\"" + expected + "\"\r\n",
            state_.header());
}

TEST_F(OutputDigest, WithoutQopOpaqueAndAlgorithmFollowTheResponse) {
  challenge("Digest realm=\"" + kRealm + "\", nonce=\"" + kNonce + "\", opaque=\"" + kOpaque +
            "\", algorithm=MD5");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  const std::string expected = md5_hex(ha1() + ":" + kNonce + ":" + ha2("GET", kUri));
  EXPECT_EQ("Authorization: Digest username=\"" + kUser + "\", realm=\"" + kRealm + "\", nonce=\"" +
                kNonce + "\", uri=\"" + kUri + "\", response=\"" + expected + "\", opaque=\"" +
                kOpaque + "\", algorithm=\"MD5\"\r\n",
            state_.header());
}

TEST_F(OutputDigest, MissingRealmIsPrintedEmpty) {
  challenge("Digest nonce=\"" + kNonce + "\"");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  const std::string a1 = md5_hex(kUser + "::" + kPassword);
  const std::string expected = md5_hex(a1 + ":" + kNonce + ":" + ha2("GET", kUri));
  EXPECT_EQ("Authorization: Digest username=\"" + kUser + "\", realm=\"\", nonce=\"" + kNonce +
                "\", uri=\"" + kUri + "\", response=\"" + expected + "\"\r\n",
            state_.header());
}

TEST_F(OutputDigest, AbsentCredentialsCountAsEmpty) {
  const std::string text = "Digest realm=\"r\", nonce=\"" + kNonce + "\"";
  ASSERT_EQ(DL_AUTH_FINE, Curl_input_auth(state_.get(), 0, text.c_str()));
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", "/"));
  const std::string expected = md5_hex(md5_hex(":r:") + ":" + kNonce + ":" + ha2("GET", "/"));
  EXPECT_EQ("Authorization: Digest username=\"\", realm=\"r\", nonce=\"" + kNonce +
                "\", uri=\"/\", response=\"" + expected + "\"\r\n",
            state_.header());
}

// ---- uri and query --------------------------------------------------------------

TEST_F(OutputDigest, WholeUriWithQueryIsHashed) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", "/cfg?mac=1"));
  const std::string expected = qop_response(ha1(), "00000001", "auth", ha2("GET", "/cfg?mac=1"));
  EXPECT_EQ(qop_line("00000001", "auth", expected, "/cfg?mac=1") + "\r\n", state_.header());
}

TEST_F(OutputDigest, IeStyleHashesTheUriUpToTheQuery) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  state_->pick.iestyle = 1;
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", "/cfg?mac=1"));
  const std::string expected = qop_response(ha1(), "00000001", "auth", ha2("GET", "/cfg"));
  EXPECT_EQ(qop_line("00000001", "auth", expected, "/cfg?mac=1") + "\r\n", state_.header());
}

// ---- proxy side --------------------------------------------------------------------

TEST_F(OutputDigest, ProxyAnswerUsesProxyCredentialsAndPrefix) {
  state_->proxy_user = kUser.c_str();
  state_->proxy_password = kPassword.c_str();
  const std::string text =
      "Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"";
  ASSERT_EQ(DL_AUTH_FINE, Curl_input_auth(state_.get(), 1, text.c_str()));
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 1, "GET", kUri.c_str()));
  EXPECT_EQ("Proxy-" + qop_line("00000001", "auth", kRfcResponse) + "\r\n", state_.proxy_header());
  EXPECT_EQ("<null>", state_.header());
  EXPECT_EQ(1, state_->proxy_pick.done);
}

// ---- nonce, done flag, previous line ----------------------------------------------

TEST_F(OutputDigest, WithoutNonceNothingIsBuiltAndDoneIsCleared) {
  state_->pick.done = 1;
  state_->header = strdup("Authorization: old\r\n");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", "/"));
  EXPECT_EQ("<null>", state_.header());
  EXPECT_EQ(0, state_->pick.done);
}

TEST_F(OutputDigest, BuiltAnswerSetsDoneAndReplacesThePreviousLine) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  state_->header = strdup("Authorization: old\r\n");
  EXPECT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(1, state_->pick.done);
  EXPECT_EQ(qop_line("00000001", "auth", kRfcResponse) + "\r\n", state_.header());
}

TEST_F(OutputDigest, FailingClientNonceIsOutOfMemory) {
  quarry::auth_set_cnonce_source(failing_cnonce);
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  EXPECT_EQ(27, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ("<null>", state_.header());
}

// ---- client nonce from the clock --------------------------------------------------

TEST_F(OutputDigest, ClientNonceIsBase64OfTheClocksFirstSixDigits) {
  quarry::auth_set_cnonce_source(nullptr);
  quarry::auth_set_clock(clock_1700000000);
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_STREQ("MTcwMDAw", state_->digest.cnonce);
  EXPECT_EQ(base64("170000"), std::string(state_->digest.cnonce));
}

TEST_F(OutputDigest, ShortClockIsPaddedToSixDigits) {
  quarry::auth_set_cnonce_source(nullptr);
  quarry::auth_set_clock(clock_42);
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(base64("000042"), std::string(state_->digest.cnonce));
}

TEST_F(OutputDigest, AuthAnswerHasCountOneAndSixDigitClientNonce) {
  quarry::auth_set_cnonce_source(nullptr);
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  const std::string line = state_.header();
  EXPECT_NE(std::string::npos, line.find(", nc=00000001, "));
  const std::string cnonce = state_->digest.cnonce;
  EXPECT_NE(std::string::npos, line.find("cnonce=\"" + cnonce + "\""));
  unsigned char decoded[16] = {};
  ASSERT_EQ(8u, cnonce.size());
  ASSERT_EQ(6, EVP_DecodeBlock(decoded, reinterpret_cast<const unsigned char *>(cnonce.data()), 8));
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(isdigit(decoded[i])) << i;
}

TEST_F(OutputDigest, ClientNonceIsKeptForLaterAnswers) {
  quarry::auth_set_cnonce_source(nullptr);
  quarry::auth_set_clock(clock_1700000000);
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  const char *first = state_->digest.cnonce;
  quarry::auth_set_clock(clock_42);
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ(first, state_->digest.cnonce);
  EXPECT_STREQ("MTcwMDAw", state_->digest.cnonce);
}

// ---- null arguments -----------------------------------------------------------------

TEST_F(OutputDigest, NullStateIsRefusedAndLogged) {
  LogCapture capture;
  EXPECT_EQ(2, Curl_output_digest(nullptr, 0, "GET", "/"));
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_output_digest param invalid\n"));
}

TEST_F(OutputDigest, NullMethodIsRefusedAndLogged) {
  challenge("Digest nonce=\"" + kNonce + "\"");
  LogCapture capture;
  EXPECT_EQ(2, Curl_output_digest(state_.get(), 0, nullptr, "/"));
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_output_digest param invalid\n"));
  EXPECT_EQ("<null>", state_.header());
}

TEST_F(OutputDigest, NullUriIsRefusedAndLogged) {
  challenge("Digest nonce=\"" + kNonce + "\"");
  LogCapture capture;
  EXPECT_EQ(2, Curl_output_digest(state_.get(), 0, "GET", nullptr));
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_output_digest param invalid\n"));
}

TEST_F(OutputDigest, BuildingWritesNoLogLine) {
  challenge("Digest realm=\"" + kRealm + "\", qop=\"auth\", nonce=\"" + kNonce + "\"");
  LogCapture capture;
  ASSERT_EQ(0, Curl_output_digest(state_.get(), 0, "GET", kUri.c_str()));
  EXPECT_EQ("", capture.text());
}

}  // namespace

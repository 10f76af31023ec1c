#include <gtest/gtest.h>

#include <string>

#include "http/auth.h"
#include "http/auth_test_support.h"
#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using auth_test::AuthState;
using auth_test::base64;
using quarry_test::LogCapture;

using auth_test::kError;
using auth_test::kHttp;

TEST(CurlOutputXsiAuth, LineCarriesEncodedPasswordThenEncodedUser) {
  AuthState state;
  state->user = "4001";
  state->password = "secret";
  ASSERT_EQ(DL_AUTH_FINE, Curl_input_auth(state.get(), 0, "Basic realm=\"BroadWorks\""));
  EXPECT_EQ(0, Curl_output_xsi_auth(state.get()));
  EXPECT_EQ("Authorization: BroadWorksSIP basic=\"c2VjcmV0\", sipUser=\"NDAwMQ==\"\r\n",
            state.header());
}

TEST(CurlOutputXsiAuth, EncodingsMatchStandardBase64) {
  AuthState state;
  state->user = "sip:4001@example.com";
  state->password = "p@ss word!";
  state->pick.picked = 1;
  EXPECT_EQ(0, Curl_output_xsi_auth(state.get()));
  EXPECT_EQ("Authorization: BroadWorksSIP basic=\"" + base64("p@ss word!") + "\", sipUser=\"" +
                base64("sip:4001@example.com") + "\"\r\n",
            state.header());
}

TEST(CurlOutputXsiAuth, ReplacesThePreviousLine) {
  AuthState state;
  state->user = "4001";
  state->password = "secret";
  state->pick.picked = 1;
  state->header = strdup("Authorization: old\r\n");
  EXPECT_EQ(0, Curl_output_xsi_auth(state.get()));
  EXPECT_EQ("Authorization: BroadWorksSIP basic=\"c2VjcmV0\", sipUser=\"NDAwMQ==\"\r\n",
            state.header());
}

TEST(CurlOutputXsiAuth, EmptyPasswordFailsTheBuild) {
  AuthState state;
  state->user = "4001";
  state->password = "";
  state->pick.picked = 1;
  EXPECT_EQ(27, Curl_output_xsi_auth(state.get()));
  EXPECT_EQ("<null>", state.header());
}

TEST(CurlOutputXsiAuth, AbsentPasswordFailsTheBuild) {
  AuthState state;
  state->user = "4001";
  state->pick.picked = 1;
  EXPECT_EQ(27, Curl_output_xsi_auth(state.get()));
}

TEST(CurlOutputXsiAuth, EmptyUserFailsTheBuild) {
  AuthState state;
  state->user = "";
  state->password = "secret";
  state->pick.picked = 1;
  EXPECT_EQ(27, Curl_output_xsi_auth(state.get()));
  EXPECT_EQ("<null>", state.header());
}

TEST(CurlOutputXsiAuth, DigestChallengeIsNotHandled) {
  AuthState state;
  state->user = "4001";
  state->password = "secret";
  ASSERT_EQ(DL_AUTH_FINE, Curl_input_auth(state.get(), 0, "Digest nonce=\"n\""));
  EXPECT_EQ(2, Curl_output_xsi_auth(state.get()));
  EXPECT_EQ("<null>", state.header());
}

TEST(CurlOutputXsiAuth, NothingPickedIsNotHandled) {
  AuthState state;
  state->user = "4001";
  state->password = "secret";
  EXPECT_EQ(2, Curl_output_xsi_auth(state.get()));
}

TEST(CurlOutputXsiAuth, ProxyCredentialsAreNotUsed) {
  AuthState state;
  state->user = "4001";
  state->password = "secret";
  state->proxy_user = "proxy";
  state->proxy_password = "other";
  state->pick.picked = 1;
  EXPECT_EQ(0, Curl_output_xsi_auth(state.get()));
  EXPECT_EQ("Authorization: BroadWorksSIP basic=\"c2VjcmV0\", sipUser=\"NDAwMQ==\"\r\n",
            state.header());
  EXPECT_EQ("<null>", state.proxy_header());
}

TEST(CurlOutputXsiAuth, NullStateIsRefusedAndLogged) {
  LogCapture capture;
  EXPECT_EQ(2, Curl_output_xsi_auth(nullptr));
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_output_xsi_auth param invalid\n"));
}

}  // namespace

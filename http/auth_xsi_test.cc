#include <gtest/gtest.h>

#include <string>

#include "http/auth.h"
#include "http/auth_test_support.h"
#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_name.h"

namespace {

using auth_test::AuthState;
using auth_test::base64;
using quarry_test::LogCapture;
using quarry_test::RowName;

using auth_test::kError;
using auth_test::kHttp;

constexpr char kLine[] =
    "Authorization: BroadWorksSIP basic=\"c2VjcmV0\", sipUser=\"NDAwMQ==\"\r\n";
constexpr char kNoLine[] = "<null>";

// One build of the line from a state made of these fields.
struct XsiCase {
  const char *name;
  const char *user;
  const char *password;    // null: none
  const char *challenge;   // parsed first (it must be accepted), or null
  unsigned picked;         // set directly when not 0
  const char *old_header;  // a line already there, or null
  bool proxy_credentials;  // proxy user and password set too; no proxy line may come
  int result;
  const char *header;      // what state.header() must be; null: not checked
};

const XsiCase kXsiCases[] = {
    {"LineCarriesEncodedPasswordThenEncodedUser", "4001", "secret",
     "Basic realm=\"BroadWorks\"", 0, nullptr, false, 0, kLine},
    {"ReplacesThePreviousLine", "4001", "secret", nullptr, 1, "Authorization: old\r\n", false, 0,
     kLine},
    {"EmptyPasswordFailsTheBuild", "4001", "", nullptr, 1, nullptr, false, 27, kNoLine},
    {"AbsentPasswordFailsTheBuild", "4001", nullptr, nullptr, 1, nullptr, false, 27, nullptr},
    {"EmptyUserFailsTheBuild", "", "secret", nullptr, 1, nullptr, false, 27, kNoLine},
    {"DigestChallengeIsNotHandled", "4001", "secret", "Digest nonce=\"n\"", 0, nullptr, false, 2,
     kNoLine},
    {"NothingPickedIsNotHandled", "4001", "secret", nullptr, 0, nullptr, false, 2, nullptr},
    {"ProxyCredentialsAreNotUsed", "4001", "secret", nullptr, 1, nullptr, true, 0, kLine},
};

class CurlOutputXsiAuthBuild : public ::testing::TestWithParam<XsiCase> {};

TEST_P(CurlOutputXsiAuthBuild, Builds) {
  const XsiCase &c = GetParam();
  AuthState state;
  state->user = c.user;
  state->password = c.password;
  if (c.proxy_credentials) {
    state->proxy_user = "proxy";
    state->proxy_password = "other";
  }
  if (c.picked != 0) state->pick.picked = c.picked;
  if (c.old_header != nullptr) state->header = strdup(c.old_header);
  if (c.challenge != nullptr) {
    ASSERT_EQ(DL_AUTH_FINE, Curl_input_auth(state.get(), 0, c.challenge));
  }
  EXPECT_EQ(c.result, Curl_output_xsi_auth(state.get()));
  if (c.header != nullptr) {
    EXPECT_EQ(c.header, state.header());
  }
  if (c.proxy_credentials) {
    EXPECT_EQ(kNoLine, state.proxy_header());
  }
}

INSTANTIATE_TEST_SUITE_P(States, CurlOutputXsiAuthBuild, ::testing::ValuesIn(kXsiCases),
                         RowName());

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

TEST(CurlOutputXsiAuth, NullStateIsRefusedAndLogged) {
  LogCapture capture;
  EXPECT_EQ(2, Curl_output_xsi_auth(nullptr));
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_output_xsi_auth param invalid\n"));
}

}  // namespace

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http/auth.h"
#include "http/auth_test_support.h"
#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_name.h"

namespace {

using auth_test::AuthState;
using auth_test::heap_copy;
using quarry_test::LogCapture;
using quarry_test::RowName;

using auth_test::kError;
using auth_test::kHttp;

std::string text_or_null(const char *text) { return text != nullptr ? text : "<null>"; }

// Parses |challenge| from an exactly sized heap copy.
int input(AuthState &state, const std::string &challenge, int proxy = 0) {
  auto copy = heap_copy(challenge);
  return Curl_input_auth(state.get(), proxy, copy.get());
}

// ---- one challenge ---------------------------------------------------------

// What one field of the parsed state must be, read as text ("<null>" for
// a missing text, a number in decimal).
struct FieldIs {
  std::string (*read)(AuthState &state);
  std::string want;
};

std::string picked(AuthState &state) { return std::to_string(state->pick.picked); }
std::string proxy_picked(AuthState &state) { return std::to_string(state->proxy_pick.picked); }
std::string nonce(AuthState &state) { return text_or_null(state->digest.nonce); }
std::string proxy_nonce(AuthState &state) { return text_or_null(state->proxy_digest.nonce); }
std::string realm(AuthState &state) { return text_or_null(state->digest.realm); }
std::string opaque(AuthState &state) { return text_or_null(state->digest.opaque); }
std::string qop(AuthState &state) { return text_or_null(state->digest.qop); }
std::string algorithm(AuthState &state) { return text_or_null(state->digest.algorithm); }
std::string stale(AuthState &state) { return std::to_string(state->digest.stale); }
std::string nc(AuthState &state) { return std::to_string(state->digest.nc); }
std::string algo(AuthState &state) { return std::to_string(state->digest.algo); }

// One challenge parsed into a fresh state: the result, then each field.
struct ParseCase {
  const char *name;
  std::string challenge;
  int proxy;
  int result;
  std::vector<FieldIs> fields;
};

const std::string kNull = "<null>";

const ParseCase kParseCases[] = {
    // The scheme word.
    {"BasicChallengeIsAcceptedAndPicksBasic", "Basic realm=\"phone\"", 0, DL_AUTH_FINE,
     {{picked, "1"}}},
    {"LowerCaseSchemeWordIsAccepted", "digest nonce=\"abc\"", 0, DL_AUTH_FINE,
     {{picked, "2"}, {nonce, "abc"}}},
    {"LowerCaseBasicIsAccepted", "basic realm=\"x\"", 0, DL_AUTH_FINE, {{picked, "1"}}},
    {"WhiteSpaceBeforeSchemeIsSkipped", " \t Digest nonce=\"abc\"", 0, DL_AUTH_FINE,
     {{picked, "2"}}},
    {"EmptyValueIsNone", "", 0, DL_AUTH_NONE, {{picked, "0"}}},
    {"ProxyChallengeFillsProxySideOnly", "Digest nonce=\"pn\"", 1, DL_AUTH_FINE,
     {{proxy_picked, "2"}, {proxy_nonce, "pn"}, {picked, "0"}, {nonce, kNull}}},
    // The nonce and the copied values.
    {"DigestWithoutNonceIsBad", "Digest realm=\"r\", qop=\"auth\"", 0, DL_AUTH_BAD,
     {{picked, "2"}}},
    {"DigestWordAloneIsBad", "Digest", 0, DL_AUTH_BAD, {}},
    {"QuotedValuesAreCopied",
     "Digest realm=\"testrealm@host.com\", nonce=\"dcd98b71\", opaque=\"5ccc069c\"", 0,
     DL_AUTH_FINE, {{realm, "testrealm@host.com"}, {nonce, "dcd98b71"}, {opaque, "5ccc069c"}}},
    {"UnquotedValuesAreCopiedUpToTheComma", "Digest realm=phone, nonce=abc123, opaque=op", 0,
     DL_AUTH_FINE, {{realm, "phone"}, {nonce, "abc123"}, {opaque, "op"}}},
    {"UnquotedValueStopsAtLineEnd", "Digest nonce=abc\r\n", 0, DL_AUTH_FINE, {{nonce, "abc"}}},
    {"PairsWithoutBlankAfterCommaAreRead", "Digest realm=\"r\",nonce=\"n\",opaque=\"o\"", 0,
     DL_AUTH_FINE, {{realm, "r"}, {nonce, "n"}, {opaque, "o"}}},
    {"KeysAreComparedIgnoringCase", "Digest NONCE=\"n\", Realm=\"r\"", 0, DL_AUTH_FINE,
     {{nonce, "n"}, {realm, "r"}}},
    {"TwoDoubleQuotesCountAsEmptyValue", "Digest realm=\"\", nonce=\"n\"", 0, DL_AUTH_FINE,
     {{realm, ""}, {nonce, "n"}}},
    {"UnknownKeysAreIgnored", "Digest domain=\"/dir\", charset=UTF-8, nonce=\"n\"", 0,
     DL_AUTH_FINE, {{nonce, "n"}, {realm, kNull}}},
    {"RepeatedKeyKeepsTheLastValue", "Digest nonce=\"first\", nonce=\"second\"", 0, DL_AUTH_FINE,
     {{nonce, "second"}}},
    {"LongQuotedValueIsCutTo1023Characters",
     "Digest realm=\"r\", nonce=\"" + std::string(1500, 'n') + "\"", 0, DL_AUTH_FINE,
     {{nonce, std::string(1023, 'n')}, {realm, "r"}}},
    {"LongUnquotedValueIsCutTo1023Characters", "Digest nonce=" + std::string(1500, 'n'), 0,
     DL_AUTH_FINE, {{nonce, std::string(1023, 'n')}}},
    {"KeyLongerThan255CharactersEndsTheParse",
     "Digest " + std::string(300, 'k') + "=\"v\", nonce=\"n\"", 0, DL_AUTH_BAD, {{nonce, kNull}}},
    {"UnterminatedQuoteEndsAtTheTextEnd", "Digest realm=\"r\", nonce=\"abc", 0, DL_AUTH_FINE,
     {{nonce, "abc"}}},
    {"PairWithoutEqualsSignEndsTheParse", "Digest nonce=\"n\", garbage", 0, DL_AUTH_FINE,
     {{nonce, "n"}}},
    // Stale.
    {"StaleTrueSetsStaleAndNonceCount", "Digest nonce=\"n\", stale=true", 0, DL_AUTH_FINE,
     {{stale, "1"}, {nc, "1"}}},
    {"StaleFalseLeavesStaleClear", "Digest nonce=\"n\", stale=\"false\"", 0, DL_AUTH_FINE,
     {{stale, "0"}, {nc, "0"}}},
    // The algorithm.
    {"AlgorithmMd5IsKeptAsSent", "Digest nonce=\"n\", algorithm=MD5", 0, DL_AUTH_FINE,
     {{algo, "0"}, {algorithm, "MD5"}}},
    {"AlgorithmMd5SessSelectsSessionHash", "Digest nonce=\"n\", algorithm=\"MD5-sess\"", 0,
     DL_AUTH_FINE, {{algo, "1"}, {algorithm, "MD5-sess"}}},
    {"AlgorithmIsComparedIgnoringCase", "Digest nonce=\"n\", algorithm=md5-SESS", 0,
     DL_AUTH_FINE, {{algo, "1"}, {algorithm, "md5-SESS"}}},
    {"AlgorithmSha256IsBadAlgorithm", "Digest nonce=\"n\", algorithm=SHA-256", 0,
     DL_AUTH_BADALGO, {}},
    {"BadAlgorithmStopsBeforeLaterPairs", "Digest algorithm=SHA-256, nonce=\"n\"", 0,
     DL_AUTH_BADALGO, {{nonce, kNull}}},
    // qop.
    {"QuotedQopListChoosesAuth", "Digest nonce=\"n\", qop=\"auth,auth-int\"", 0, DL_AUTH_FINE,
     {{qop, "auth"}}},
    {"UnquotedQopListChoosesAuth", "Digest qop=auth,auth-int, realm=\"r\", nonce=\"n\"", 0,
     DL_AUTH_FINE, {{qop, "auth"}, {realm, "r"}, {nonce, "n"}}},
    {"UnquotedQopListIsWidenedBeyondItsFirstItem", "Digest qop=auth-int,auth, nonce=\"n\"", 0,
     DL_AUTH_FINE, {{qop, "auth"}}},
    {"QopAuthIntAloneChoosesAuthInt", "Digest nonce=\"n\", qop=\"auth-int\"", 0, DL_AUTH_FINE,
     {{qop, "auth-int"}}},
    {"QopListWithBlanksChoosesAuth", "Digest nonce=\"n\", qop=\"auth-int, auth\"", 0,
     DL_AUTH_FINE, {{qop, "auth"}}},
    {"UnknownQopLeavesQopUnset", "Digest nonce=\"n\", qop=\"auth-conf\"", 0, DL_AUTH_FINE,
     {{qop, kNull}}},
};

class CurlInputAuthParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(CurlInputAuthParse, Parses) {
  const ParseCase &c = GetParam();
  AuthState state;
  EXPECT_EQ(c.result, input(state, c.challenge, c.proxy));
  for (size_t i = 0; i < c.fields.size(); ++i) {
    SCOPED_TRACE("field check " + std::to_string(i));
    EXPECT_EQ(c.fields[i].want, c.fields[i].read(state));
  }
}

INSTANTIATE_TEST_SUITE_P(Challenges, CurlInputAuthParse, ::testing::ValuesIn(kParseCases),
                         RowName());

// ---- state before the challenge ----------------------------------------

TEST(CurlInputAuth, OtherSchemeIsNoneAndClearsPicked) {
  AuthState state;
  state->pick.picked = 2;
  EXPECT_EQ(DL_AUTH_NONE, input(state, "NTLM"));
  EXPECT_EQ(0u, state->pick.picked);
}

TEST(CurlInputAuth, RepeatedChallengeWithoutStaleIsBad) {
  AuthState state;
  ASSERT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n1\""));
  EXPECT_EQ(DL_AUTH_BAD, input(state, "Digest nonce=\"n2\""));
}

TEST(CurlInputAuth, RepeatedChallengeWithStaleIsAccepted) {
  AuthState state;
  ASSERT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n1\""));
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n2\", stale=TRUE"));
  EXPECT_EQ("n2", text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, NewChallengeClearsTheOldDigestState) {
  AuthState state;
  ASSERT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n1\", opaque=\"o\", qop=\"auth\""));
  state->digest.nc = 5;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n2\", stale=true"));
  EXPECT_EQ(nullptr, state->digest.opaque);
  EXPECT_EQ(nullptr, state->digest.qop);
  EXPECT_EQ(1, state->digest.nc);
}

TEST(CurlInputAuth, ParsingWritesNoLogLine) {
  AuthState state;
  LogCapture capture;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", qop=auth,auth-int, realm=\"r\""));
  EXPECT_EQ("", capture.text());
}

// ---- null arguments ---------------------------------------------------------

TEST(CurlInputAuth, NullStateIsNoneAndLogged) {
  LogCapture capture;
  EXPECT_EQ(DL_AUTH_NONE, Curl_input_auth(nullptr, 0, "Basic"));
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_input_auth param invalid\n"));
}

TEST(CurlInputAuth, NullValueIsNoneAndLogged) {
  AuthState state;
  LogCapture capture;
  EXPECT_EQ(DL_AUTH_NONE, Curl_input_auth(state.get(), 0, nullptr));
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_input_auth param invalid\n"));
}

// ---- get_all_qop_content ---------------------------------------------------

// The value as the pair's parse left it, and what widening makes of it.
struct QopCase {
  const char *name;
  const char *rest;
  const char *value;
  const char *want;
};

const QopCase kQopCases[] = {
    {"WidensUnquotedValueToTheList", "qop=auth,auth-int, realm=\"r\"", "auth", "auth,auth-int"},
    {"LastPairLeavesValueAlone", "qop=auth", "auth", "auth"},
    {"QuotedValueIsLeftAlone", "qop=\"auth,auth-int\", realm=x", "auth,auth-int",
     "auth,auth-int"},
};

class GetAllQopContentWidening : public ::testing::TestWithParam<QopCase> {};

TEST_P(GetAllQopContentWidening, Widens) {
  char value[1024];
  snprintf(value, sizeof value, "%s", GetParam().value);
  EXPECT_EQ(0, get_all_qop_content(GetParam().rest, "qop", value));
  EXPECT_STREQ(GetParam().want, value);
}

INSTANTIATE_TEST_SUITE_P(Values, GetAllQopContentWidening, ::testing::ValuesIn(kQopCases),
                         RowName());

TEST(GetAllQopContent, WideningStopsAtTheValueBufferEnd) {
  char value[1024];
  memset(value, 'a', 1000);
  value[1000] = '\0';
  const std::string rest = "qop=" + std::string(1000, 'a') + "," + std::string(100, 'b') + ",k=v";
  EXPECT_EQ(0, get_all_qop_content(rest.c_str(), "qop", value));
  EXPECT_EQ(1023u, strlen(value));
  EXPECT_EQ(std::string(1000, 'a') + "," + std::string(22, 'b'), std::string(value));
}

TEST(GetAllQopContent, NullArgumentsAreRefusedAndLogged) {
  char value[1024] = "auth";
  LogCapture capture;
  EXPECT_EQ(-1, get_all_qop_content(nullptr, "qop", value));
  EXPECT_EQ(-1, get_all_qop_content("qop=auth", nullptr, value));
  EXPECT_EQ(-1, get_all_qop_content("qop=auth", "qop", nullptr));
  EXPECT_EQ(3, capture.count(kHttp, kError, "get_all_qop_content param invalid\n"));
}

TEST(GetAllQopContent, TextNotHoldingThePairIsRefusedAndLogged) {
  char value[1024] = "auth";
  LogCapture capture;
  EXPECT_EQ(-1, get_all_qop_content("q", "qop", value));
  EXPECT_EQ(-1, get_all_qop_content("qop=au", "qop", value));
  EXPECT_STREQ("auth", value);
  EXPECT_EQ(2, capture.count(kHttp, kError, "get_all_qop_content param invalid\n"));
}

// ---- Curl_digest_cleanup_one --------------------------------------------------

TEST(CurlDigestCleanupOne, FreesTextsAndZeroesCounters) {
  AuthState state;
  ASSERT_EQ(DL_AUTH_FINE, input(state,
                                "Digest nonce=\"n\", realm=\"r\", opaque=\"o\", "
                                "qop=\"auth\", algorithm=MD5-sess, stale=true"));
  state->digest.cnonce = strdup("c");
  Curl_digest_cleanup_one(&state->digest);
  const dl_http_digest &d = state->digest;
  EXPECT_EQ(nullptr, d.nonce);
  EXPECT_EQ(nullptr, d.cnonce);
  EXPECT_EQ(nullptr, d.realm);
  EXPECT_EQ(nullptr, d.opaque);
  EXPECT_EQ(nullptr, d.qop);
  EXPECT_EQ(nullptr, d.algorithm);
  EXPECT_EQ(0, d.nc);
  EXPECT_EQ(0, d.algo);
  EXPECT_EQ(0, d.stale);
}

TEST(CurlDigestCleanupOne, NullDigestIsLogged) {
  LogCapture capture;
  Curl_digest_cleanup_one(nullptr);
  EXPECT_TRUE(capture.has(kHttp, kError, "Curl_digest_cleanup_one param invalid\n"));
}

}  // namespace

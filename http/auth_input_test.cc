#include <gtest/gtest.h>

#include <string>

#include "http/auth.h"
#include "http/auth_test_support.h"
#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using auth_test::AuthState;
using auth_test::heap_copy;
using quarry_test::LogCapture;

using auth_test::kError;
using auth_test::kHttp;

std::string text_or_null(const char *text) { return text != nullptr ? text : "<null>"; }

// Parses |challenge| from an exactly sized heap copy.
int input(AuthState &state, const std::string &challenge, int proxy = 0) {
  auto copy = heap_copy(challenge);
  return Curl_input_auth(state.get(), proxy, copy.get());
}

// ---- scheme word -------------------------------------------------------

TEST(CurlInputAuth, BasicChallengeIsAcceptedAndPicksBasic) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Basic realm=\"phone\""));
  EXPECT_EQ(1u, state->pick.picked);
}

TEST(CurlInputAuth, LowerCaseSchemeWordIsAccepted) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "digest nonce=\"abc\""));
  EXPECT_EQ(2u, state->pick.picked);
  EXPECT_EQ("abc", text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, LowerCaseBasicIsAccepted) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "basic realm=\"x\""));
  EXPECT_EQ(1u, state->pick.picked);
}

TEST(CurlInputAuth, WhiteSpaceBeforeSchemeIsSkipped) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, " \t Digest nonce=\"abc\""));
  EXPECT_EQ(2u, state->pick.picked);
}

TEST(CurlInputAuth, OtherSchemeIsNoneAndClearsPicked) {
  AuthState state;
  state->pick.picked = 2;
  EXPECT_EQ(DL_AUTH_NONE, input(state, "NTLM"));
  EXPECT_EQ(0u, state->pick.picked);
}

TEST(CurlInputAuth, EmptyValueIsNone) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_NONE, input(state, ""));
  EXPECT_EQ(0u, state->pick.picked);
}

TEST(CurlInputAuth, ProxyChallengeFillsProxySideOnly) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"pn\"", 1));
  EXPECT_EQ(2u, state->proxy_pick.picked);
  EXPECT_EQ("pn", text_or_null(state->proxy_digest.nonce));
  EXPECT_EQ(0u, state->pick.picked);
  EXPECT_EQ(nullptr, state->digest.nonce);
}

// ---- nonce and copied values -------------------------------------------

TEST(CurlInputAuth, DigestWithoutNonceIsBad) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_BAD, input(state, "Digest realm=\"r\", qop=\"auth\""));
  EXPECT_EQ(2u, state->pick.picked);
}

TEST(CurlInputAuth, DigestWordAloneIsBad) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_BAD, input(state, "Digest"));
}

TEST(CurlInputAuth, QuotedValuesAreCopied) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state,
                                "Digest realm=\"testrealm@host.com\", nonce=\"dcd98b71\", "
                                "opaque=\"5ccc069c\""));
  EXPECT_EQ("testrealm@host.com", text_or_null(state->digest.realm));
  EXPECT_EQ("dcd98b71", text_or_null(state->digest.nonce));
  EXPECT_EQ("5ccc069c", text_or_null(state->digest.opaque));
}

TEST(CurlInputAuth, UnquotedValuesAreCopiedUpToTheComma) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest realm=phone, nonce=abc123, opaque=op"));
  EXPECT_EQ("phone", text_or_null(state->digest.realm));
  EXPECT_EQ("abc123", text_or_null(state->digest.nonce));
  EXPECT_EQ("op", text_or_null(state->digest.opaque));
}

TEST(CurlInputAuth, UnquotedValueStopsAtLineEnd) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=abc\r\n"));
  EXPECT_EQ("abc", text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, PairsWithoutBlankAfterCommaAreRead) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest realm=\"r\",nonce=\"n\",opaque=\"o\""));
  EXPECT_EQ("r", text_or_null(state->digest.realm));
  EXPECT_EQ("n", text_or_null(state->digest.nonce));
  EXPECT_EQ("o", text_or_null(state->digest.opaque));
}

TEST(CurlInputAuth, KeysAreComparedIgnoringCase) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest NONCE=\"n\", Realm=\"r\""));
  EXPECT_EQ("n", text_or_null(state->digest.nonce));
  EXPECT_EQ("r", text_or_null(state->digest.realm));
}

TEST(CurlInputAuth, TwoDoubleQuotesCountAsEmptyValue) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest realm=\"\", nonce=\"n\""));
  EXPECT_EQ("", text_or_null(state->digest.realm));
  EXPECT_EQ("n", text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, UnknownKeysAreIgnored) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest domain=\"/dir\", charset=UTF-8, nonce=\"n\""));
  EXPECT_EQ("n", text_or_null(state->digest.nonce));
  EXPECT_EQ(nullptr, state->digest.realm);
}

TEST(CurlInputAuth, RepeatedKeyKeepsTheLastValue) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"first\", nonce=\"second\""));
  EXPECT_EQ("second", text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, LongQuotedValueIsCutTo1023Characters) {
  AuthState state;
  const std::string nonce(1500, 'n');
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest realm=\"r\", nonce=\"" + nonce + "\""));
  EXPECT_EQ(std::string(1023, 'n'), text_or_null(state->digest.nonce));
  EXPECT_EQ("r", text_or_null(state->digest.realm));
}

TEST(CurlInputAuth, LongUnquotedValueIsCutTo1023Characters) {
  AuthState state;
  const std::string nonce(1500, 'n');
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=" + nonce));
  EXPECT_EQ(std::string(1023, 'n'), text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, KeyLongerThan255CharactersEndsTheParse) {
  AuthState state;
  const std::string key(300, 'k');
  EXPECT_EQ(DL_AUTH_BAD, input(state, "Digest " + key + "=\"v\", nonce=\"n\""));
  EXPECT_EQ(nullptr, state->digest.nonce);
}

TEST(CurlInputAuth, UnterminatedQuoteEndsAtTheTextEnd) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest realm=\"r\", nonce=\"abc"));
  EXPECT_EQ("abc", text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, PairWithoutEqualsSignEndsTheParse) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", garbage"));
  EXPECT_EQ("n", text_or_null(state->digest.nonce));
}

// ---- stale and repeated challenges -------------------------------------

TEST(CurlInputAuth, StaleTrueSetsStaleAndNonceCount) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", stale=true"));
  EXPECT_EQ(1, state->digest.stale);
  EXPECT_EQ(1, state->digest.nc);
}

TEST(CurlInputAuth, StaleFalseLeavesStaleClear) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", stale=\"false\""));
  EXPECT_EQ(0, state->digest.stale);
  EXPECT_EQ(0, state->digest.nc);
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

// ---- algorithm ----------------------------------------------------------

TEST(CurlInputAuth, AlgorithmMd5IsKeptAsSent) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", algorithm=MD5"));
  EXPECT_EQ(0, state->digest.algo);
  EXPECT_EQ("MD5", text_or_null(state->digest.algorithm));
}

TEST(CurlInputAuth, AlgorithmMd5SessSelectsSessionHash) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", algorithm=\"MD5-sess\""));
  EXPECT_EQ(1, state->digest.algo);
  EXPECT_EQ("MD5-sess", text_or_null(state->digest.algorithm));
}

TEST(CurlInputAuth, AlgorithmIsComparedIgnoringCase) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", algorithm=md5-SESS"));
  EXPECT_EQ(1, state->digest.algo);
  EXPECT_EQ("md5-SESS", text_or_null(state->digest.algorithm));
}

TEST(CurlInputAuth, AlgorithmSha256IsBadAlgorithm) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_BADALGO, input(state, "Digest nonce=\"n\", algorithm=SHA-256"));
}

TEST(CurlInputAuth, BadAlgorithmStopsBeforeLaterPairs) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_BADALGO, input(state, "Digest algorithm=SHA-256, nonce=\"n\""));
  EXPECT_EQ(nullptr, state->digest.nonce);
}

// ---- qop ------------------------------------------------------------------

TEST(CurlInputAuth, QuotedQopListChoosesAuth) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", qop=\"auth,auth-int\""));
  EXPECT_EQ("auth", text_or_null(state->digest.qop));
}

TEST(CurlInputAuth, UnquotedQopListChoosesAuth) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest qop=auth,auth-int, realm=\"r\", nonce=\"n\""));
  EXPECT_EQ("auth", text_or_null(state->digest.qop));
  EXPECT_EQ("r", text_or_null(state->digest.realm));
  EXPECT_EQ("n", text_or_null(state->digest.nonce));
}

TEST(CurlInputAuth, UnquotedQopListIsWidenedBeyondItsFirstItem) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest qop=auth-int,auth, nonce=\"n\""));
  EXPECT_EQ("auth", text_or_null(state->digest.qop));
}

TEST(CurlInputAuth, QopAuthIntAloneChoosesAuthInt) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", qop=\"auth-int\""));
  EXPECT_EQ("auth-int", text_or_null(state->digest.qop));
}

TEST(CurlInputAuth, QopListWithBlanksChoosesAuth) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", qop=\"auth-int, auth\""));
  EXPECT_EQ("auth", text_or_null(state->digest.qop));
}

TEST(CurlInputAuth, UnknownQopLeavesQopUnset) {
  AuthState state;
  EXPECT_EQ(DL_AUTH_FINE, input(state, "Digest nonce=\"n\", qop=\"auth-conf\""));
  EXPECT_EQ(nullptr, state->digest.qop);
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

TEST(GetAllQopContent, WidensUnquotedValueToTheList) {
  char value[1024] = "auth";
  EXPECT_EQ(0, get_all_qop_content("qop=auth,auth-int, realm=\"r\"", "qop", value));
  EXPECT_STREQ("auth,auth-int", value);
}

TEST(GetAllQopContent, LastPairLeavesValueAlone) {
  char value[1024] = "auth";
  EXPECT_EQ(0, get_all_qop_content("qop=auth", "qop", value));
  EXPECT_STREQ("auth", value);
}

TEST(GetAllQopContent, QuotedValueIsLeftAlone) {
  char value[1024] = "auth,auth-int";
  EXPECT_EQ(0, get_all_qop_content("qop=\"auth,auth-int\", realm=x", "qop", value));
  EXPECT_STREQ("auth,auth-int", value);
}

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

#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "http/open_test_support.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::count_of;
using quarry_http_test::local_url;
using quarry_http_test::response;
using quarry_test::close_conn;
using quarry_test::read_to_end;
using quarry_test::read_until;
using quarry_test::send_bytes;
using quarry_test::TcpPeer;

constexpr const char *kEnd = quarry_http_test::kHeaderEnd;

class HttpOpen : public quarry_http_test::ExchangeTest {
 protected:
  int open() { return dl_http_open(&conn_, &param_, redirect_, &err_); }
  int open_ex(int mode) {
    dl_http_param_ex ex = {&param_, mode};
    return dl_http_open_ex(&conn_, &ex, redirect_, &err_);
  }
  std::string body() {
    std::string out;
    char buf[256];
    int n;
    while ((n = dl_http_read(conn_, buf, sizeof(buf), &err_)) > 0) out.append(buf, n);
    return out;
  }
};

TEST_F(HttpOpen, OkResponseLeavesTheBodyOnTheHandle) {
  TcpPeer peer;
  serve(&peer, response("200 OK", "", "hello"));
  use_url(local_url(peer.port(), "/a"));
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(err_.code, 0);
  EXPECT_EQ(body(), "hello");
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  EXPECT_EQ(peer.received(0).rfind("GET /a HTTP/1.1\r\n", 0), 0u);
  EXPECT_TRUE(capture_->has(3, 6, "process response\n"));
  EXPECT_TRUE(capture_->has(3, 5, "response process finish!\n"));
}

TEST_F(HttpOpen, OkResponseKeepsItsHeadersForLookUp) {
  TcpPeer peer;
  serve(&peer, response("200 OK", "X-Tag: one\r\n", ""));
  use_url(local_url(peer.port(), "/a"));
  ASSERT_EQ(open(), 0);
  const char *line = dl_http_find_header_by_name(conn_, "X-Tag");
  ASSERT_NE(line, nullptr);
  EXPECT_STREQ(line, "x-tag: one");
}

TEST_F(HttpOpen, RedirectIsFollowedToAnotherPortWithHostRewritten) {
  TcpPeer target;
  serve(&target, response("200 OK", "", "there"));
  const std::string location = local_url(target.port(), "/b");
  TcpPeer first;
  serve(&first, response("301 Moved", "Location: " + location + "\r\n", ""));
  use_url(local_url(first.port(), "/a"));
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(err_.code, 0);
  EXPECT_STREQ(redirect_, location.c_str());
  EXPECT_EQ(body(), "there");
  dl_http_close(conn_);
  conn_ = nullptr;
  target.wait();
  first.wait();
  const std::string second = target.received(0);
  EXPECT_EQ(second.rfind("GET /b HTTP/1.1\r\n", 0), 0u);
  EXPECT_NE(second.find("Host: 127.0.0.1:" + std::to_string(target.port()) + "\r\n"),
            std::string::npos);
  EXPECT_TRUE(capture_->has(3, 5, "redirect to new url\n"));
}

TEST_F(HttpOpen, NoRedirectAllowedFailsOnTheFirstOne) {
  set_number(DL_OPT_MAX_REDIRECTS, 0);
  TcpPeer peer;
  serve(&peer, response("301 Moved", "Location: http://127.0.0.1:1/b\r\n", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(conn_, nullptr);
  EXPECT_EQ(err_.code, DL_ERR_REDIRECT);
  EXPECT_TRUE(capture_->has(3, 3, "handler response error, ret = -12\n"));
}

TEST_F(HttpOpen, RedirectWithoutLocationFails) {
  TcpPeer peer;
  serve(&peer, response("302 Found", "", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_REDIRECT);
  EXPECT_TRUE(capture_->has(3, 3, "Can't find location header\n"));
}

TEST_F(HttpOpen, SeeOtherIsReturnedWithItsBody) {
  TcpPeer peer;
  serve(&peer, response("303 See Other", "Location: /x\r\n", "see"));
  use_url(local_url(peer.port(), "/a"));
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(err_.code, 0);
  EXPECT_EQ(body(), "see");
}

TEST_F(HttpOpen, TemporaryRedirectIsReturnedWithItsBody) {
  TcpPeer peer;
  serve(&peer, response("307 Temporary", "Location: /x\r\n", "tmp"));
  use_url(local_url(peer.port(), "/a"));
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(err_.code, 0);
  EXPECT_EQ(body(), "tmp");
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  EXPECT_EQ(count_of(peer.received(0), "GET "), 1u);
}

// The second response arrives with the first, before the second request:
// it waits in the handle's receive buffer, and the connection is reused.
TEST_F(HttpOpen, PipelinedAnswerAfterAChallengeIsReadOnTheSameConnection) {
  TcpPeer peer;
  peer.add({read_until(kEnd),
            send_bytes(response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n",
                                "no") +
                       response("200 OK", "X-Second: yes\r\n", "in")),
            read_until(kEnd), read_until(kEnd), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  param_.password = const_cast<char *>("pass");
  ASSERT_EQ(open(), 0);
  EXPECT_STREQ(dl_http_find_header_by_name(conn_, "x-second"), "x-second: yes");
  EXPECT_EQ(body(), "in");
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  const std::string got = peer.received(0);
  EXPECT_EQ(peer.connections(), 1u);
  EXPECT_EQ(count_of(got, "GET /a HTTP/1.1\r\n"), 2u);
  EXPECT_EQ(count_of(got, "Authorization: Basic dXNlcjpwYXNz\r\n"), 1u);
  EXPECT_TRUE(capture_->has(3, 3, "Cleaning cache\n"));
}

TEST_F(HttpOpen, BasicChallengeIsAnsweredOnTheSameConnection) {
  TcpPeer peer;
  peer.add(
      {read_until(kEnd),
       send_bytes(response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "no")),
       read_until(kEnd), send_bytes(response("200 OK", "", "in")), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  param_.password = const_cast<char *>("pass");
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(body(), "in");
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  const std::string got = peer.received(0);
  EXPECT_EQ(peer.connections(), 1u);
  EXPECT_EQ(count_of(got, "GET /a HTTP/1.1\r\n"), 2u);
  EXPECT_EQ(count_of(got, "Authorization: Basic dXNlcjpwYXNz\r\n"), 1u);
  EXPECT_TRUE(capture_->has(3, 3, "http auth type: 1,\n"));
  EXPECT_TRUE(capture_->has(3, 3, "Cleaning cache\n"));
}

TEST_F(HttpOpen, DigestChallengeIsAnswered) {
  TcpPeer peer;
  peer.add({read_until(kEnd),
            send_bytes(response("401 Unauthorized",
                                "WWW-Authenticate: Digest realm=\"r\", nonce=\"n1\"\r\n", "")),
            read_until(kEnd), send_bytes(response("200 OK", "", "in")), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  param_.password = const_cast<char *>("pass");
  ASSERT_EQ(open(), 0);
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  const std::string got = peer.received(0);
  EXPECT_EQ(count_of(got, "GET /a HTTP/1.1\r\n"), 2u);
  const size_t at = got.find("Authorization: Digest ");
  ASSERT_NE(at, std::string::npos);
  const std::string line = got.substr(at, got.find("\r\n", at) - at);
  EXPECT_NE(line.find("username=\"user\""), std::string::npos);
  EXPECT_NE(line.find("realm=\"r\""), std::string::npos);
  EXPECT_NE(line.find("nonce=\"n1\""), std::string::npos);
  EXPECT_NE(line.find("uri=\"/a\""), std::string::npos);
  EXPECT_NE(line.find("response=\""), std::string::npos);
  EXPECT_TRUE(capture_->has(3, 3, "http auth type: 2,\n"));
}

TEST_F(HttpOpen, EndlessChallengesFailAfterTheAttemptLimit) {
  set_number(DL_OPT_AUTH_RETRY, 2);
  const std::string challenge =
      response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "");
  TcpPeer peer;
  peer.add({read_until(kEnd), send_bytes(challenge), read_until(kEnd), send_bytes(challenge),
            read_until(kEnd), send_bytes(challenge), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  param_.password = const_cast<char *>("pass");
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
  peer.wait();
  EXPECT_EQ(count_of(peer.received(0), "GET /a HTTP/1.1\r\n"), 3u);
  EXPECT_TRUE(capture_->has(3, 3, "auth err, req type:0, 4xx times:2, limit itmes:3, wparam:0\n"));
}

TEST_F(HttpOpen, ChallengeWithoutCredentialsFails) {
  TcpPeer peer;
  serve(&peer, response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
}

TEST_F(HttpOpen, ChallengeOnAClosingConnectionIsAnsweredOnANewOne) {
  TcpPeer peer;
  peer.add({read_until(kEnd),
            send_bytes("HTTP/1.0 401 Unauthorized\r\nConnection: close\r\n"
                       "WWW-Authenticate: Basic realm=\"r\"\r\n\r\n"),
            close_conn()});
  serve(&peer, response("200 OK", "", "in"));
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  param_.password = const_cast<char *>("pass");
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(body(), "in");
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  EXPECT_EQ(peer.connections(), 2u);
  EXPECT_NE(peer.received(1).find("Authorization: Basic dXNlcjpwYXNz\r\n"), std::string::npos);
  EXPECT_TRUE(capture_->has(3, 6, "Reconnect 127.0.0.1:" + std::to_string(peer.port()) + "\n"));
}

TEST_F(HttpOpen, ChallengeWithoutWwwAuthenticateEndsInATimeOut) {
  TcpPeer peer;
  serve(&peer, response("401 Unauthorized", "", ""));
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  param_.password = const_cast<char *>("pass");
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  peer.wait();
  EXPECT_EQ(count_of(peer.received(0), "GET /a HTTP/1.1\r\n"), 1u);
}

TEST_F(HttpOpen, NotModifiedFailsThePlainOpen) {
  TcpPeer peer;
  serve(&peer, response("304 Not Modified", "", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(conn_, nullptr);
  EXPECT_EQ(err_.code, 304);
  EXPECT_TRUE(capture_->has(3, 3, "Client error, same data. code: 304\n"));
}

TEST_F(HttpOpen, NotModifiedIsASuccessOfTheOpenWithMode) {
  TcpPeer peer;
  serve(&peer, response("304 Not Modified", "", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open_ex(DL_EX_NONE), 0);
  EXPECT_NE(conn_, nullptr);
  EXPECT_EQ(err_.code, 0);
}

TEST_F(HttpOpen, ClientErrorFails) {
  TcpPeer peer;
  serve(&peer, response("404 Not Found", "", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, 404);
  EXPECT_TRUE(capture_->has(3, 3, "Client error, ret = 404\n"));
}

TEST_F(HttpOpen, NoTryAuthHandsTheChallengeBack) {
  TcpPeer peer;
  serve(&peer, response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "denied"));
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  ASSERT_EQ(open_ex(DL_EX_NO_TRY_AUTH), 0);
  EXPECT_EQ(err_.code, 401);
  EXPECT_NE(dl_http_find_header_by_name(conn_, "www-authenticate"), nullptr);
  EXPECT_EQ(body(), "denied");
  EXPECT_TRUE(capture_->has(3, 5, "http no try auth\n"));
}

TEST_F(HttpOpen, NoTryRedirectStopsAtTheRedirect) {
  TcpPeer peer;
  serve(&peer, response("302 Found", "Location: http://127.0.0.1:1/b\r\n", "moved"));
  use_url(local_url(peer.port(), "/a"));
  ASSERT_EQ(open_ex(DL_EX_NO_TRY_REDIRECT), 0);
  EXPECT_EQ(err_.code, 0);
  EXPECT_STREQ(redirect_, "http://127.0.0.1:1/b");
  EXPECT_EQ(body(), "moved");
  EXPECT_TRUE(capture_->has(3, 5, "special type DL_EX_NO_TRY_REDIRECT!stop try redirect url\n"));
  EXPECT_TRUE(capture_->has(3, 5, "Stop handle response!\n"));
}

TEST_F(HttpOpen, HttpsThroughAProxyGoesInPlainTextWithThePath) {
  TcpPeer proxy;
  serve(&proxy, response("200 OK", "", "via"));
  use_url("https://example.invalid/x/y");
  std::string proxy_url = local_url(proxy.port(), "/");
  param_.proxy = &proxy_url[0];
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(body(), "via");
  dl_http_close(conn_);
  conn_ = nullptr;
  proxy.wait();
  const std::string got = proxy.received(0);
  EXPECT_EQ(got.rfind("GET /x/y HTTP/1.1\r\n", 0), 0u);
  EXPECT_NE(got.find("Host: example.invalid\r\n"), std::string::npos);
}

TEST_F(HttpOpen, HttpsWithoutTlsSupportFailsToConnect) {
  TcpPeer peer;
  peer.add({read_to_end()});
  peer.start();
  use_url("https://127.0.0.1:" + std::to_string(peer.port()) + "/a");
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  EXPECT_TRUE(capture_->has(3, 3, "Connect Error\n"));
}

TEST_F(HttpOpen, UninitialisedSettingsAreRefused) {
  dl_exit();
  use_url("http://127.0.0.1:1/a");
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_NO_CONFIG);
  EXPECT_EQ(conn_, nullptr);
  EXPECT_TRUE(capture_->has(3, 3, "config doesn't init\n"));
}

TEST_F(HttpOpen, MissingArgumentsAreRefused) {
  use_url("http://127.0.0.1:1/a");
  EXPECT_EQ(dl_http_open(nullptr, &param_, redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_http_open(&conn_, nullptr, redirect_, &err_), -1);
  EXPECT_EQ(dl_http_open(&conn_, &param_, nullptr, &err_), -1);
  EXPECT_EQ(dl_http_open(&conn_, &param_, redirect_, nullptr), -1);
  EXPECT_EQ(dl_http_open_ex(&conn_, nullptr, redirect_, &err_), -1);
  dl_http_param_ex ex = {nullptr, 0};
  EXPECT_EQ(dl_http_open_ex(&conn_, &ex, redirect_, &err_), -1);
  param_.url = nullptr;
  EXPECT_EQ(dl_http_open(&conn_, &param_, redirect_, &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(conn_, nullptr);
  EXPECT_TRUE(capture_->has(3, 3, "http open with invalid parameter\n"));
}

TEST_F(HttpOpen, CloseIgnoresNullAndDeadHandles) {
  dl_http_close(nullptr);
  dl_http_conn *dead = static_cast<dl_http_conn *>(calloc(1, sizeof(dl_http_conn)));
  dl_http_close(dead);
  EXPECT_EQ(dead->magic, 0);
  free(dead);
}

TEST_F(HttpOpen, AuthInfoLooksAtTheUrlOrTheList) {
  dl_url url = quarry_http_test::url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/");
  quarry_http_test::Request req;
  EXPECT_EQ(dl_http_auth_info_is_empty(nullptr, req.get()), -1);
  EXPECT_EQ(dl_http_auth_info_is_empty(&url, nullptr), -1);
  EXPECT_EQ(dl_http_auth_info_is_empty(&url, req.get()), 1);
  url.password = const_cast<char *>("p");
  EXPECT_EQ(dl_http_auth_info_is_empty(&url, req.get()), 0);
  dl_http_cred creds[2] = {{const_cast<char *>(""), const_cast<char *>("")},
                           {const_cast<char *>("u"), nullptr}};
  req->mode = DL_EX_MULTI_AUTH;
  req->creds = creds;
  req->creds_count = 2;
  EXPECT_EQ(dl_http_auth_info_is_empty(&url, req.get()), 1);
  EXPECT_EQ(dl_http_auth_info_is_empty(&url, req.get()), 0);
  EXPECT_EQ(dl_http_auth_info_is_empty(&url, req.get()), 1);
  EXPECT_EQ(req->creds_next, 2);
}

TEST_F(HttpOpen, RedirectThroughAProxyKeepsTheConnectionAndSetsHost) {
  TcpPeer proxy;
  proxy.add({read_until(kEnd),
             send_bytes(response("301 Moved", "Location: https://other.invalid/b\r\n", "gone")),
             read_until(kEnd), send_bytes(response("200 OK", "", "end")), read_to_end()});
  proxy.start();
  use_url("http://example.invalid/a");
  std::string proxy_url = local_url(proxy.port(), "/");
  param_.proxy = &proxy_url[0];
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(body(), "end");
  EXPECT_STREQ(redirect_, "https://other.invalid/b");
  dl_http_close(conn_);
  conn_ = nullptr;
  proxy.wait();
  EXPECT_EQ(proxy.connections(), 1u);
  const std::string got = proxy.received(0);
  const size_t second = got.find("GET /b HTTP/1.1\r\n");
  ASSERT_NE(second, std::string::npos);
  EXPECT_NE(got.find("Host: other.invalid\r\n", second), std::string::npos);
}

TEST_F(HttpOpen, RedirectToAnUnparsableUrlFails) {
  TcpPeer peer;
  serve(&peer, response("302 Found", "Location: http://[broken/b\r\n", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_REDIRECT_URL);
}

TEST_F(HttpOpen, PostStaysAPostWithItsBodyAcrossARedirect) {
  TcpPeer target;
  target.add({read_until("data"), send_bytes(response("200 OK", "", "")), read_to_end()});
  target.start();
  TcpPeer first;
  first.add({read_until("data"),
             send_bytes(
                 response("302 Found", "Location: " + local_url(target.port(), "/b") + "\r\n", "")),
             read_to_end()});
  first.start();
  use_url(local_url(first.port(), "/a"));
  param_.type = DL_HTTP_POST;
  param_.body = const_cast<char *>("data");
  ASSERT_EQ(open(), 0);
  dl_http_close(conn_);
  conn_ = nullptr;
  target.wait();
  const std::string got = target.received(0);
  EXPECT_EQ(got.rfind("POST /b HTTP/1.1\r\n", 0), 0u);
  EXPECT_NE(got.find("\r\n\r\ndata"), std::string::npos);
}

TEST_F(HttpOpen, UnknownChallengeSchemeFails) {
  TcpPeer peer;
  serve(&peer, response("401 Unauthorized", "WWW-Authenticate: Negotiate\r\n", ""));
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("user");
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
  EXPECT_TRUE(capture_->has(3, 3, "Input Auth Error\n"));
}

TEST_F(HttpOpen, XsiModeAnswersABasicChallengeWithBroadWorksSip) {
  TcpPeer peer;
  peer.add({read_until(kEnd),
            send_bytes(response("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "")),
            read_until(kEnd), send_bytes(response("200 OK", "", "")), read_to_end()});
  peer.start();
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("4001");
  param_.password = const_cast<char *>("secret");
  ASSERT_EQ(open_ex(DL_EX_XSI_AUTH), 0);
  dl_http_close(conn_);
  conn_ = nullptr;
  peer.wait();
  EXPECT_NE(peer.received(0).find(
                "Authorization: BroadWorksSIP basic=\"c2VjcmV0\", sipUser=\"NDAwMQ==\"\r\n"),
            std::string::npos);
}

TEST_F(HttpOpen, XsiModeRefusesADigestChallenge) {
  TcpPeer peer;
  serve(&peer,
        response("401 Unauthorized", "WWW-Authenticate: Digest realm=\"r\", nonce=\"n1\"\r\n", ""));
  use_url(local_url(peer.port(), "/a"));
  param_.user = const_cast<char *>("4001");
  param_.password = const_cast<char *>("secret");
  EXPECT_EQ(open_ex(DL_EX_XSI_AUTH), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
  EXPECT_TRUE(capture_->has(3, 3, "Output SIP XSI Auth Error\n"));
}

TEST_F(HttpOpen, MachineEntriesRefuseMissingArguments) {
  quarry_http_test::Handle handle;
  quarry_http_test::Request req;
  dl_url url = quarry_http_test::url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/");
  dl_url *slot = &url;
  EXPECT_EQ(http_handle_response(nullptr, &slot, nullptr, req.get(), redirect_), DL_ERR_PARAM);
  EXPECT_EQ(http_handle_response(handle.get(), nullptr, nullptr, req.get(), redirect_),
            DL_ERR_PARAM);
  EXPECT_EQ(http_handle_response(handle.get(), &slot, nullptr, nullptr, redirect_), DL_ERR_PARAM);
  EXPECT_EQ(http_handle_response(handle.get(), &slot, nullptr, req.get(), nullptr), DL_ERR_PARAM);
  EXPECT_EQ(http_auth_retry(nullptr, nullptr, &url, req.get()), DL_ERR_PARAM);
  EXPECT_EQ(http_auth_retry(handle.get(), nullptr, nullptr, req.get()), DL_ERR_PARAM);
  EXPECT_EQ(http_auth_retry(handle.get(), nullptr, &url, nullptr), DL_ERR_PARAM);
  EXPECT_TRUE(capture_->has(3, 3, "http handle response with invalid parameter\n"));
  EXPECT_TRUE(capture_->has(3, 3, "http auth retry with invalid parameter\n"));
}

TEST_F(HttpOpen, UnparsableProxyFailsWithTheParserCode) {
  use_url("http://example.invalid/a");
  std::string proxy_url = "http://[broken/";
  param_.proxy = &proxy_url[0];
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(err_.code, DL_ERR_URL);
  EXPECT_EQ(conn_, nullptr);
}

TEST_F(HttpOpen, FailedOpenTracesTheBodyWhenTracing) {
  set_number(DL_OPT_DATA_TRACE, 1);
  TcpPeer peer;
  serve(&peer, response("404 Not Found", "", "missing-page-text"));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_TRUE(capture_->mentions("missing-page-text"));
}

TEST_F(HttpOpen, FailedOpenLeavesTheBodyUntracedWhenNotTracing) {
  TcpPeer peer;
  serve(&peer, response("404 Not Found", "", "missing-page-text"));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), -1);
  EXPECT_FALSE(capture_->mentions("missing-page-text"));
}

TEST_F(HttpOpen, HeaderTraceLogsTheHeadersOfAResponseThatIsLeft) {
  set_number(DL_OPT_DATA_TRACE, 2);
  TcpPeer peer;
  serve(&peer, response("204 No Content", "X-Trace-Me: yes\r\n", ""));
  use_url(local_url(peer.port(), "/a"));
  EXPECT_EQ(open(), 0);
  // Once as it is read, once more as the response is left.
  EXPECT_EQ(capture_->count(3, 3, "x-trace-me: yes\n"), 2);
}

}  // namespace

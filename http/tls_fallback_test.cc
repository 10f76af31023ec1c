// The protocol-version fallback of http_connect, with the handshake played
// by this file: defining dl_do_SSL_connect here keeps the library's own out
// of the link, so each attempt's method and outcome are the test's to say.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <map>
#include <string>
#include <vector>

#include "http/http_test_support.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace {

// What each method's handshake answers (absent: DL_ERR_SSL_METHOD), the
// methods tried in order, and a listener to close after the first try.
std::map<int, int> g_outcome;
std::vector<int> g_tried;
int g_close_after_first = -1;

}  // namespace

extern "C" int dl_do_SSL_connect(int fd, const char *cert_file, const char *ca_dir, int method,
                                 int verify, int check_host, const char *host,
                                 struct ssl_st **out_ssl, struct ssl_ctx_st **out_ctx) {
  (void)fd;
  (void)cert_file;
  (void)ca_dir;
  (void)verify;
  (void)check_host;
  (void)host;
  g_tried.push_back(method);
  if (g_close_after_first >= 0) {
    close(g_close_after_first);
    g_close_after_first = -1;
  }
  auto it = g_outcome.find(method);
  int ret = it == g_outcome.end() ? DL_ERR_SSL_METHOD : it->second;
  if (ret == 0) {
    *out_ctx = SSL_CTX_new(TLS_client_method());
    *out_ssl = SSL_new(*out_ctx);
  }
  return ret;
}

namespace {

using quarry_http_test::Handle;
using quarry_test::read_to_end;
using quarry_test::TcpPeer;

class TlsFallback : public quarry_http_test::HttpTest {
 protected:
  void SetUp() override {
    HttpTest::SetUp();
    g_outcome.clear();
    g_tried.clear();
    g_close_after_first = -1;
    handle_->flags = DL_HTTP_TLS;
  }
  void set_method(uint32_t method) { set_number(DL_OPT_SSL_METHOD, method); }
  // A peer that takes |n| connections, each read until the library closes.
  void expect_connections(TcpPeer *peer, size_t n) {
    for (size_t i = 0; i < n; ++i) peer->add({read_to_end()});
    peer->start();
  }

  Handle handle_;
};

TEST_F(TlsFallback, TableHoldsTheVersionsNewestFirst) {
  EXPECT_EQ(std::vector<int>(tls_retry, tls_retry + 6), (std::vector<int>{5, 4, 0, 3, 2, 1}));
}

TEST_F(TlsFallback, FirstHandshakeThatWorksNeedsNoFallback) {
  TcpPeer peer;
  expect_connections(&peer, 1);
  g_outcome[3] = 0;
  set_method(3);
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), 0);
  EXPECT_EQ(g_tried, std::vector<int>{3});
  EXPECT_NE(handle_->ssl, nullptr);
  EXPECT_NE(handle_->ssl_ctx, nullptr);
  EXPECT_FALSE(capture_->mentions("Reset ssl methmod!"));
  http_reset(handle_.get());
  EXPECT_TRUE(peer.wait());
}

TEST_F(TlsFallback, VersionErrorTriesTheTableOnFreshConnectionsSkippingTheConfiguredOne) {
  TcpPeer peer;
  expect_connections(&peer, 3);
  g_outcome[0] = 0;
  set_method(5);
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), 0);
  EXPECT_EQ(g_tried, (std::vector<int>{5, 4, 0}));
  EXPECT_TRUE(capture_->has(2, 6, "Reset ssl methmod!\n"));
  EXPECT_GT(handle_->sock, 0);
  EXPECT_NE(handle_->ssl, nullptr);
  http_reset(handle_.get());
  EXPECT_TRUE(peer.wait());
}

TEST_F(TlsFallback, EveryVersionRefusedFailsWithTheVersionError) {
  TcpPeer peer;
  expect_connections(&peer, 6);
  set_method(5);
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), DL_ERR_SSL_METHOD);
  EXPECT_EQ(g_tried, (std::vector<int>{5, 4, 0, 3, 2, 1}));
  EXPECT_EQ(handle_->sock, 0);
  EXPECT_EQ(handle_->ssl, nullptr);
  EXPECT_TRUE(peer.wait());
}

TEST_F(TlsFallback, LastEntrySkippedStillClosesEverything) {
  TcpPeer peer;
  expect_connections(&peer, 6);
  set_method(1);
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), DL_ERR_SSL_METHOD);
  EXPECT_EQ(g_tried, (std::vector<int>{1, 5, 4, 0, 3, 2}));
  EXPECT_EQ(handle_->sock, 0);
  EXPECT_TRUE(peer.wait());
}

TEST_F(TlsFallback, OtherFailureEndsTheFallback) {
  TcpPeer peer;
  expect_connections(&peer, 2);
  g_outcome[4] = DL_ERR_CERT_VERIFY;
  set_method(5);
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), DL_ERR_CERT_VERIFY);
  EXPECT_EQ(g_tried, (std::vector<int>{5, 4}));
  EXPECT_EQ(handle_->sock, 0);
  EXPECT_TRUE(peer.wait());
}

TEST_F(TlsFallback, FailureOtherThanVersionIsNotRetried) {
  TcpPeer peer;
  expect_connections(&peer, 1);
  g_outcome[5] = DL_ERR_TLS_ALERT;
  set_method(5);
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), DL_ERR_TLS_ALERT);
  EXPECT_EQ(g_tried, std::vector<int>{5});
  EXPECT_EQ(handle_->sock, 0);
  EXPECT_TRUE(peer.wait());
}

TEST_F(TlsFallback, ConnectFailingDuringTheFallbackIsReturnedAtOnce) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0);
  socklen_t len = sizeof(a);
  getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len);
  ASSERT_EQ(listen(listener, 4), 0);
  g_close_after_first = listener;
  set_method(5);
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", ntohs(a.sin_port), nullptr), DL_ERR_CONNECT);
  EXPECT_EQ(g_tried, std::vector<int>{5});
  EXPECT_EQ(handle_->sock, 0);
}

}  // namespace

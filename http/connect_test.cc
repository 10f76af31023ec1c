#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::Handle;
using quarry_http_test::Request;
using quarry_test::close_conn;
using quarry_test::read_to_end;
using quarry_test::read_until;
using quarry_test::send_bytes;
using quarry_test::TcpPeer;

class HttpConnect : public quarry_http_test::HttpTest {
 protected:
  Handle handle_;
};

// A port nothing listens on: bound, then closed again.
uint16_t closed_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
  socklen_t len = sizeof(a);
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

TEST_F(HttpConnect, PlainConnectStoresTheSocket) {
  TcpPeer peer;
  peer.add({read_to_end()});
  peer.start();
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), 0);
  EXPECT_GT(handle_->sock, 0);
  EXPECT_EQ(handle_->ssl, nullptr);
  http_reset(handle_.get());
  peer.wait();
}

TEST_F(HttpConnect, RefusedConnectIsReturnedAsItIs) {
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", closed_port(), nullptr), DL_ERR_CONNECT);
  EXPECT_EQ(handle_->sock, 0);
}

TEST_F(HttpConnect, UnknownHostIsReturnedAsItIs) {
  EXPECT_EQ(http_connect(handle_.get(), "no-such-host.invalid", 80, nullptr), DL_ERR_HOST);
  EXPECT_EQ(handle_->sock, 0);
}

// The library's defaults name no CA directory, which OpenSSL cannot load:
// the handshake fails before a byte is sent.
TEST_F(HttpConnect, HttpsFailingBeforeTheHandshakeClosesTheSocket) {
  TcpPeer peer;
  peer.add({read_to_end()});
  peer.start();
  handle_->flags = DL_HTTP_TLS;
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), DL_ERR_CONNECT);
  EXPECT_EQ(handle_->sock, 0);
  EXPECT_EQ(handle_->ssl, nullptr);
  EXPECT_EQ(handle_->ssl_ctx, nullptr);
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.received(0), "");
  EXPECT_TRUE(capture_->has(2, 3, "loading CA certificate: invalid directory\n"));
  EXPECT_FALSE(capture_->mentions("Reset ssl methmod!"));
}

TEST_F(HttpConnect, NoTlsIsStartedThroughAProxy) {
  TcpPeer peer;
  peer.add({read_to_end()});
  peer.start();
  handle_->flags = DL_HTTP_TLS;
  dl_url proxy = quarry_http_test::url_of(DL_URL_SCHEME_HTTP, 0, "127.0.0.1", peer.port(), "/");
  EXPECT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), &proxy), 0);
  EXPECT_GT(handle_->sock, 0);
  EXPECT_EQ(handle_->ssl, nullptr);
  http_reset(handle_.get());
  peer.wait();
}

TEST_F(HttpConnect, RefusesADeadHandleOrNoHost) {
  dl_http_conn dead = {};
  EXPECT_EQ(http_connect(nullptr, "127.0.0.1", 80, nullptr), DL_ERR_PARAM);
  EXPECT_EQ(http_connect(&dead, "127.0.0.1", 80, nullptr), DL_ERR_PARAM);
  EXPECT_EQ(http_connect(handle_.get(), nullptr, 80, nullptr), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http connect with invalid parameter\n"), 3);
}

TEST_F(HttpConnect, ResetClosesTheConnectionAndRearmsTheHandle) {
  TcpPeer peer;
  peer.add({read_to_end()});
  peer.start();
  ASSERT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), 0);
  handle_->flags = DL_HTTP_11 | DL_HTTP_CHUNKED;
  handle_->headers = static_cast<char *>(calloc(1, 2048));
  handle_->headers_len = 10;
  handle_->chunk = static_cast<dl_http_chunk *>(calloc(1, sizeof(dl_http_chunk)));
  handle_->chunk->data = static_cast<uint8_t *>(malloc(512));
  handle_->remaining = 7;
  http_reset(handle_.get());
  EXPECT_TRUE(peer.wait());
  dl_http_conn clean = {};
  clean.magic = DL_HTTP_MAGIC;
  EXPECT_EQ(memcmp(handle_.get(), &clean, sizeof(clean)), 0);
}

TEST_F(HttpConnect, ResetFreesATlsSessionAndContext) {
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  ASSERT_NE(ctx, nullptr);
  handle_->ssl_ctx = ctx;
  handle_->ssl = SSL_new(ctx);
  handle_->flags = DL_HTTP_TLS;
  http_reset(handle_.get());
  EXPECT_EQ(handle_->ssl, nullptr);
  EXPECT_EQ(handle_->ssl_ctx, nullptr);
  EXPECT_EQ(handle_->flags, 0u);
}

TEST_F(HttpConnect, ResetIgnoresADeadHandle) {
  dl_http_conn dead = {};
  http_reset(nullptr);
  http_reset(&dead);
  EXPECT_EQ(dead.magic, 0);
  EXPECT_EQ(capture_->count(3, 3, "http reset with invalid parameter\n"), 2);
}

// A whole exchange on a scripted server: connect, request, status,
// headers, body.
TEST_F(HttpConnect, WholeExchangeWithAScriptedServer) {
  TcpPeer peer;
  peer.add({read_until("\r\n\r\n"),
            send_bytes("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n\r\n"
                       "hello"),
            read_to_end()});
  peer.start();
  std::string url_text = "http://127.0.0.1:" + std::to_string(peer.port()) + "/cfg/a.cfg";
  dl_http_param param = {};
  param.type = DL_HTTP_GET;
  param.url = const_cast<char *>(url_text.c_str());
  dl_error err = {};
  dl_url *url = http_url_check(&handle_->flags, &param, &err);
  ASSERT_NE(url, nullptr);
  ASSERT_EQ(http_connect(handle_.get(), url->host, url->port, nullptr), 0);
  Request req;
  ASSERT_EQ(http_make_request(handle_->flags, req.get(), nullptr, nullptr, url), 0);
  ASSERT_EQ(http_send_request(handle_.get(), req.get()), 0);
  ASSERT_EQ(http_read_status(handle_.get()), 200);
  uint32_t size = quarry::kHeaderBlockStart;
  ASSERT_EQ(quarry::http_read_headers(handle_.get(), 200, &size), 0);
  EXPECT_STREQ(dl_http_find_header_by_name(handle_.get(), "Content-Type"),
               "content-type: text/plain");
  char buf[16] = {};
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err), 5);
  EXPECT_STREQ(buf, "hello");
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err), 0);
  http_reset(handle_.get());
  dl_url_free(url);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received(0),
            "GET /cfg/a.cfg HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.port()) +
                "\r\nUser-Agent: Vantrel\r\nAccept: */*\r\n"
                "Connection: Keep-Alive\r\n\r\n");
}

TEST_F(HttpConnect, ServerClosingBeforeAnswerGivesAnInvalidStatus) {
  TcpPeer peer;
  peer.add({read_until("\r\n\r\n"), close_conn()});
  peer.start();
  ASSERT_EQ(http_connect(handle_.get(), "127.0.0.1", peer.port(), nullptr), 0);
  ASSERT_EQ(http_write(handle_.get(), "GET / HTTP/1.1\r\n\r\n", 18), 0);
  EXPECT_EQ(http_read_status(handle_.get()), DL_ERR_RECV);
  peer.wait();
}

class UrlCheck : public HttpConnect {};

TEST_F(UrlCheck, HttpUrlKeepsTheFlagsAndTakesTheRequestType) {
  dl_http_param param = {};
  param.type = DL_HTTP_PUT;
  param.url = const_cast<char *>("http://h.example:8080/up?x=1");
  param.user = const_cast<char *>("u");
  param.password = const_cast<char *>("p");
  uint32_t flags = DL_HTTP_11;
  dl_error err = {};
  dl_url *url = http_url_check(&flags, &param, &err);
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(flags, static_cast<uint32_t>(DL_HTTP_11));
  EXPECT_EQ(url->request_type, static_cast<uint32_t>(DL_HTTP_PUT));
  EXPECT_STREQ(url->host, "h.example");
  EXPECT_EQ(url->port, 8080);
  EXPECT_STREQ(url->path, "/up?x=1");
  EXPECT_STREQ(url->user, "u");
  EXPECT_STREQ(url->password, "p");
  EXPECT_EQ(err.code, 0);
  dl_url_free(url);
}

TEST_F(UrlCheck, HttpsUrlSetsTheTlsFlag) {
  dl_http_param param = {};
  param.url = const_cast<char *>("https://h.example/");
  uint32_t flags = 0;
  dl_url *url = http_url_check(&flags, &param, nullptr);
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(flags, static_cast<uint32_t>(DL_HTTP_TLS));
  EXPECT_EQ(url->port, 443);
  dl_url_free(url);
}

TEST_F(UrlCheck, UnparsableUrlLeavesTheParsersCode) {
  dl_http_param param = {};
  param.url = const_cast<char *>("ftp://h.example/");
  uint32_t flags = 0;
  dl_error err = {};
  EXPECT_EQ(http_url_check(&flags, &param, &err), nullptr);
  EXPECT_EQ(err.code, DL_ERR_URL);
  EXPECT_EQ(flags, 0u);
}

TEST_F(UrlCheck, RefusesMissingArguments) {
  dl_http_param param = {};
  param.url = const_cast<char *>("http://h/");
  uint32_t flags = 0;
  dl_error err = {};
  EXPECT_EQ(http_url_check(nullptr, &param, &err), nullptr);
  EXPECT_EQ(err.code, DL_ERR_PARAM);
  EXPECT_STREQ(err.msg, "Invalid Parameter");
  EXPECT_EQ(http_url_check(&flags, nullptr, nullptr), nullptr);
  EXPECT_EQ(capture_->count(3, 3, "http url check with invalid parameter\n"), 2);
}

}  // namespace

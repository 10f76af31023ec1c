// HTTPS through the HTTP open flow against scripted TLS servers: the
// version fallback on fresh connections, a plain-HTTP server on the port,
// 401 answered on the same TLS connection and on a new one, posts, and
// bodies read until the server closes.
#include <openssl/ssl.h>

#include <string>

#include "tests/peer/tls_peer.h"
#include "tests/real/http_real_support.h"

namespace quarry_test {
namespace {

constexpr char kBoundaryHeader[] = "Content-Type: multipart/form-data; boundary=QuarryBoundary42\r\n";

std::string ok(const std::string &body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class HttpsFlow : public HttpRealTest {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    ASSERT_FALSE(test_pki_dir().empty());
    set_number(DL_OPT_SSL_METHOD, 3);
    std::string cadir = RealServer::pki("cadir");
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, cadir.c_str()), 0);
  }
  void set_number(int option, uint32_t value) { ASSERT_EQ(dl_set_option(option, &value), 0); }
  static TlsPeerConfig server() {
    TlsPeerConfig c;
    c.cert = RealServer::pki("server.crt");
    c.key = RealServer::pki("server.key");
    return c;
  }
  static std::string base(uint16_t port) { return "https://127.0.0.1:" + std::to_string(port); }
};

TEST_F(HttpsFlow, VersionFallbackUsesANewConnectionPerAttempt) {
  TlsPeerConfig config = server();
  config.min_version = config.max_version = TLS1_VERSION;
  config.ciphers = "DEFAULT:@SECLEVEL=0";
  TlsPeer peer(config);
  peer.add({});
  peer.add({});
  peer.add({read_until("\r\n\r\n"), send_bytes(ok("old server")), close_conn()});
  peer.start();
  set_number(DL_OPT_SSL_METHOD, 5);
  ASSERT_EQ(download(base(peer.port()) + "/f.txt", "f.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("f.txt"), "old server");
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.accepted(), 3u);
  EXPECT_FALSE(peer.connection(0).handshake_ok);
  EXPECT_FALSE(peer.connection(1).handshake_ok);
  EXPECT_TRUE(peer.connection(2).handshake_ok);
  EXPECT_EQ(peer.connection(2).version, "TLSv1");
  EXPECT_EQ(log_->count(2, 6, "TLS version error!\n"), 2);
  EXPECT_TRUE(log_->has(2, 6, "Reset ssl methmod!\n"));
}

TEST_F(HttpsFlow, PlainHttpServerEndsTheFallbackAtTheFirstMethodThatCannotBeMade) {
  TcpPeer peer;
  const std::string reply = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
  for (int i = 0; i < 4; ++i) peer.add({read_bytes(5), send_bytes(reply), close_conn()});
  peer.add({read_to_end()});
  peer.start();
  set_number(DL_OPT_SSL_METHOD, 5);
  EXPECT_EQ(download(base(peer.port()) + "/f.txt", "f.txt"), -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  // 5, 4, 0 and 3 meet no TLS at all; SSL 3 cannot be made.
  EXPECT_EQ(log_->count(2, 6, "TLS version error!\n"), 4) << log_->text();
  EXPECT_TRUE(log_->has(2, 3, "SSL_CTX_new Error\n"));
  EXPECT_TRUE(peer.wait());
  EXPECT_FALSE(exists("f.txt"));
}

TEST_F(HttpsFlow, ChallengeIsAnsweredOnTheSameTlsConnection) {
  TlsPeer peer(server());
  peer.add({read_until("\r\n\r\n"),
            send_bytes("HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"phone\"\r\n"
                       "Content-Length: 6\r\n\r\ndenied"),
            read_until("\r\n\r\n"), send_bytes(ok("secret")), close_conn()});
  peer.start();
  ASSERT_EQ(download(base(peer.port()) + "/s.txt", "s.txt", "user1", "pass1"), 0)
      << err_.msg << log_->text();
  EXPECT_EQ(saved("s.txt"), "secret");
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.accepted(), 1u);
  const std::string sent = peer.connection(0).received;
  EXPECT_NE(sent.find("Authorization: Basic dXNlcjE6cGFzczE=\r\n"), std::string::npos) << sent;
  // HTTPS requests never carry a Connection header.
  EXPECT_EQ(sent.find("Connection:"), std::string::npos) << sent;
}

TEST_F(HttpsFlow, ChallengeWithCloseIsAnsweredOnANewTlsConnection) {
  TlsPeer peer(server());
  peer.add({read_until("\r\n\r\n"),
            send_bytes("HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"phone\"\r\n"
                       "Connection: close\r\nContent-Length: 0\r\n\r\n"),
            close_conn()});
  peer.add({read_until("\r\n\r\n"), send_bytes(ok("secret")), close_conn()});
  peer.start();
  ASSERT_EQ(download(base(peer.port()) + "/s.txt", "s.txt", "user1", "pass1"), 0)
      << err_.msg << log_->text();
  EXPECT_EQ(saved("s.txt"), "secret");
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.accepted(), 2u);
  EXPECT_TRUE(peer.connection(1).handshake_ok);
  EXPECT_NE(peer.connection(1).received.find("Authorization: Basic "), std::string::npos);
}

TEST_F(HttpsFlow, PostsAFileAsAForm) {
  TlsPeer peer(server());
  peer.add({read_until("--QuarryBoundary42--\r\n"), send_bytes(ok("")), close_conn()});
  peer.start();
  std::string content(30000, 'c');
  ASSERT_EQ(upload(base(peer.port()) + "/cgi", "phone.cfg", content, DL_HTTP_POST,
                   kBoundaryHeader),
            0)
      << err_.msg << log_->text();
  EXPECT_TRUE(peer.wait());
  const std::string sent = peer.connection(0).received;
  EXPECT_EQ(sent.rfind("POST /cgi HTTP/1.1\r\n", 0), 0u) << sent.substr(0, 200);
  EXPECT_NE(sent.find("filename=\"phone.cfg\""), std::string::npos);
  EXPECT_NE(sent.find(content), std::string::npos);
}

TEST_F(HttpsFlow, BodyUntilCloseWithCloseNotify) {
  TlsPeer peer(server());
  peer.add({read_until("\r\n\r\n"), send_bytes("HTTP/1.1 200 OK\r\n\r\nuntil the end"),
            close_conn()});
  peer.start();
  ASSERT_EQ(download(base(peer.port()) + "/f", "f.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("f.txt"), "until the end");
}

TEST_F(HttpsFlow, BodyUntilCloseWithoutCloseNotifyEndsNormally) {
  TlsPeerConfig config = server();
  config.close_notify = false;
  TlsPeer peer(config);
  peer.add({read_until("\r\n\r\n"), send_bytes("HTTP/1.1 200 OK\r\n\r\nabrupt end"),
            close_conn()});
  peer.start();
  ASSERT_EQ(download(base(peer.port()) + "/f", "f.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("f.txt"), "abrupt end");
}

TEST_F(HttpsFlow, StreamsThroughOpenAndRead) {
  TlsPeer peer(server());
  std::string body(50000, 'b');
  peer.add({read_until("\r\n\r\n"), send_bytes(ok(body)), close_conn()});
  peer.start();
  EXPECT_EQ(stream(base(peer.port()) + "/big"), body);
}

}  // namespace
}  // namespace quarry_test

// The handshake against raw scripted peers: silence, trickles, garbage,
// truncated and ended handshakes, alerts, and what the ClientHello says.
#include <chrono>
#include <string>

#include "tls/tls_test_support.h"

namespace {

using quarry_test::close_conn;
using quarry_test::read_bytes;
using quarry_test::read_to_end;
using quarry_test::reset_conn;
using quarry_test::Script;
using quarry_test::send_bytes;
using quarry_test::sleep_ms;
using quarry_test::TcpPeer;
using quarry_tls_test::TlsTest;

// TLS record header: content type, version 3.3, length.
std::string record(unsigned char type, const std::string &body) {
  std::string r = {static_cast<char>(type), 3, 3, static_cast<char>(body.size() >> 8),
                   static_cast<char>(body.size() & 0xff)};
  return r + body;
}
constexpr unsigned char kAlert = 21;
constexpr unsigned char kHandshake = 22;
// A fatal alert (level 2) with its description.
std::string fatal_alert(unsigned char description) {
  return record(kAlert, std::string{2, static_cast<char>(description)});
}

class Handshake : public TlsTest {
 protected:
  // Plays |script| on one connection and hand-shakes with it.
  int against(Script script, int method = 3, int verify = 0, const char *host = "localhost") {
    peer_.add(std::move(script));
    peer_.start();
    connect_to(peer_.port());
    auto start = std::chrono::steady_clock::now();
    int ret = handshake(method, verify, 0, host);
    elapsed_ms_ = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
    release();
    EXPECT_TRUE(peer_.wait());
    return ret;
  }
  TcpPeer peer_;
  long long elapsed_ms_ = 0;
};

TEST_F(Handshake, SilentServerFailsAfterThreeSeconds) {
  set_timeout(30);
  // The peer stays silent well past the bound, which leaves room for a
  // loaded machine or an emulator.
  EXPECT_EQ(against({read_bytes(5), sleep_ms(4600), close_conn()}), DL_ERR_CONNECT);
  EXPECT_GE(elapsed_ms_, 2900);
  EXPECT_LT(elapsed_ms_, 4500);
  EXPECT_TRUE(log_->has(2, 3, "SSL_connect select(read) error (Resource temporarily unavailable)\n"))
      << log_->text();
  EXPECT_EQ(ssl_, nullptr);
}

TEST_F(Handshake, TricklingServerIsEndedAtTheTimeOutPlusThreeSeconds) {
  set_timeout(1);
  // A handshake record announcing 16384 bytes, then a byte a second.
  Script script = {read_bytes(5), send_bytes(std::string{kHandshake, 3, 3, 0x40, 0})};
  for (int i = 0; i < 7; ++i) {
    script.push_back(sleep_ms(900));
    script.push_back(send_bytes("x"));
  }
  EXPECT_EQ(against(script), DL_ERR_CONNECT);
  EXPECT_GE(elapsed_ms_, 3900);
  EXPECT_LT(elapsed_ms_, 5500);
  EXPECT_GE(log_->count(2, 6, "SSL_connect (read done)\n"), 3) << log_->text();
  EXPECT_TRUE(log_->has(2, 3, "SSL_connect select(read) error (Connection timed out)\n"))
      << log_->text();
}

TEST_F(Handshake, ServerAnsweringLaterIsWaitedFor) {
  // Each wait that ends with data is logged.
  EXPECT_EQ(against({read_bytes(5), sleep_ms(300), send_bytes(fatal_alert(40))}),
            DL_ERR_TLS_ALERT);
  EXPECT_TRUE(log_->has(2, 6, "SSL_connect (read done)\n")) << log_->text();
}

TEST_F(Handshake, ServerClosingMidHandshakeEndsIt) {
  EXPECT_EQ(against({read_bytes(5), close_conn()}), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 6, "SSL_connect write/read error\n")) << log_->text();
  EXPECT_FALSE(log_->mentions("Certificate doesn't verify"));
}

TEST_F(Handshake, ServerResettingMidHandshakeEndsIt) {
  EXPECT_EQ(against({read_bytes(5), reset_conn()}), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 6, "SSL_connect write/read error\n")) << log_->text();
}

TEST_F(Handshake, TruncatedRecordThenCloseEndsIt) {
  std::string partial = std::string{kHandshake, 3, 3, 0, 60} + std::string(10, '\x02');
  EXPECT_EQ(against({read_bytes(5), send_bytes(partial), close_conn()}), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 6, "SSL_connect write/read error\n")) << log_->text();
}

TEST_F(Handshake, PlainHttpServerIsAWrongVersion) {
  EXPECT_EQ(against({read_bytes(5),
                     send_bytes("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"),
                     close_conn()}),
            DL_ERR_SSL_METHOD);
  EXPECT_TRUE(log_->has(2, 6, "TLS version error!\n")) << log_->text();
}

TEST_F(Handshake, GarbageHandshakeMessageIsAProtocolError) {
  // A handshake record holding message type 99 with an empty body.
  std::string bad = record(kHandshake, std::string{99, 0, 0, 0});
  EXPECT_EQ(against({read_bytes(5), send_bytes(bad), read_to_end()}), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 0, reason 244\n"))
      << log_->text();
}

TEST_F(Handshake, RefusalAlertsGiveTheAlertCode) {
  for (unsigned char alert : {40, 41, 42, 43, 44, 45, 46, 48}) {
    TlsTest::TearDown();
    TlsTest::SetUp();
    TcpPeer peer;
    peer.add({read_bytes(5), send_bytes(fatal_alert(alert)), read_to_end()});
    peer.start();
    connect_to(peer.port());
    EXPECT_EQ(handshake(3, 1, 0, "localhost"), DL_ERR_TLS_ALERT) << int(alert);
    EXPECT_TRUE(log_->has(2, 3,
                          "Certificate doesn't verify and error is 0, reason " +
                              std::to_string(1000 + alert) + "\n"))
        << log_->text();
    release();
    EXPECT_TRUE(peer.wait());
  }
}

TEST_F(Handshake, IllegalParameterAlertIsNoRefusal) {
  EXPECT_EQ(against({read_bytes(5), send_bytes(fatal_alert(47)), read_to_end()}),
            DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 0, reason 1047\n"));
}

TEST_F(Handshake, ClientHelloNamesTheHost) {
  EXPECT_EQ(against({read_bytes(200), close_conn()}, 3, 0, "phone-config.example.test"),
            DL_ERR_CONNECT);
  EXPECT_NE(peer_.received(0).find("phone-config.example.test"), std::string::npos);
}

TEST_F(Handshake, ClientHelloForAnAddressHoldsNoServerName) {
  EXPECT_EQ(against({read_bytes(200), close_conn()}, 3, 0, "127.0.0.1"), DL_ERR_CONNECT);
  ASSERT_GE(peer_.received(0).size(), 100u);
  EXPECT_EQ(peer_.received(0).find("127.0.0.1"), std::string::npos);
}

}  // namespace

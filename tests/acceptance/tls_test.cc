// TLS connection set-up: methods, trust, client credentials, the host-name
// check, handshake failures and their codes, the cipher-list functions, the
// pass-phrase and verification callbacks, and HTTPS transfers with the
// version fallback against loopback peers and real servers.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/peer/scripted_peer.h"
#include "tests/peer/tls_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::RealServer;
using quarry_test::TempDir;
using quarry_test::TlsPeer;
using quarry_test::TlsPeerConfig;

constexpr unsigned kCommon = 2;
constexpr int kError = 3;
constexpr int kWarning = 4;
constexpr int kNotice = 5;
constexpr int kInfo = 6;

std::string pki(const std::string &file) { return RealServer::pki(file); }

// A blocking TCP socket connected to 127.0.0.1:|port|, -1 on failure.
int connect_to(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

TlsPeerConfig peer_config(const std::string &name) {
  TlsPeerConfig config;
  config.cert = pki(name + ".crt");
  config.key = pki(name + ".key");
  config.ciphers = "DEFAULT:@SECLEVEL=0";
  return config;
}

// One handshake against |port|; frees what it is handed.
struct Attempt {
  int result = 1;
  bool got_session = false;
};

Attempt handshake(uint16_t port, const char *cert_file, const char *ca_dir, int method, int verify,
                  int check_host, const char *host) {
  Attempt attempt;
  int fd = connect_to(port);
  if (fd < 0) return attempt;
  SSL *ssl = nullptr;
  SSL_CTX *ctx = nullptr;
  attempt.result = dl_do_SSL_connect(fd, cert_file, ca_dir, method, verify, check_host, host, &ssl, &ctx);
  attempt.got_session = ssl != nullptr && ctx != nullptr;
  if (ssl != nullptr) {
    SSL_shutdown(ssl);
    SSL_free(ssl);
  }
  if (ctx != nullptr) SSL_CTX_free(ctx);
  close(fd);
  return attempt;
}

class Tls : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    ca_dir_ = pki("cadir");
  }
  void TearDown() override { dl_exit(); }

  // A peer presenting |name|.crt that plays an empty script per connection.
  void start_peer(const TlsPeerConfig &config, int connections = 1) {
    peer_.reset(new TlsPeer(config));
    ASSERT_TRUE(peer_->ok());
    for (int i = 0; i < connections; ++i) peer_->add({});
    peer_->start();
  }
  Attempt verified(const char *host) {
    return handshake(peer_->port(), nullptr, ca_dir_.c_str(), 3, 1, 1, host);
  }
  void expect_mismatch(const LogCapture &log) {
    EXPECT_TRUE(log.has(kCommon, kError, "Common name and subject alt name doesn't match host name\n"))
        << log.text();
    EXPECT_TRUE(log.has(kCommon, kError, "trust check error\n")) << log.text();
  }

  std::string ca_dir_;
  std::unique_ptr<TlsPeer> peer_;
};

// --- methods and the fallback table ---------------------------------------

TEST_F(Tls, RetryTableOrdersTheMethods) {
  const int32_t expected[6] = {5, 4, 0, 3, 2, 1};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(expected[i], tls_retry[i]) << i;
}

TEST_F(Tls, MethodSixFailsBeforeAnyTraffic) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
  LogCapture log;
  SSL *ssl = reinterpret_cast<SSL *>(0x1);
  SSL_CTX *ctx = reinterpret_cast<SSL_CTX *>(0x2);
  EXPECT_EQ(-3, dl_do_SSL_connect(pair[0], nullptr, ca_dir_.c_str(), 6, 0, 0, nullptr, &ssl, &ctx));
  EXPECT_TRUE(log.has(kCommon, kError, "wrong method\n")) << log.text();
  EXPECT_EQ(reinterpret_cast<SSL *>(0x1), ssl);
  EXPECT_EQ(reinterpret_cast<SSL_CTX *>(0x2), ctx);
  // Nothing was written to the peer.
  char byte;
  EXPECT_EQ(-1, recv(pair[1], &byte, 1, MSG_DONTWAIT));
  close(pair[0]);
  close(pair[1]);
}

// OpenSSL 3 cannot make SSL 2 or SSL 3 contexts.
TEST_F(Tls, SslTwoAndThreeCannotBeMade) {
  for (int method : {1, 2}) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    LogCapture log;
    SSL *ssl = nullptr;
    SSL_CTX *ctx = nullptr;
    EXPECT_EQ(-3, dl_do_SSL_connect(pair[0], nullptr, ca_dir_.c_str(), method, 0, 0, nullptr, &ssl, &ctx));
    EXPECT_TRUE(log.has(kCommon, kError, "SSL_CTX_new Error\n")) << log.text();
    EXPECT_EQ(nullptr, ssl);
    close(pair[0]);
    close(pair[1]);
  }
}

TEST_F(Tls, WrongVersionGivesMethodError) {
  TlsPeerConfig config = peer_config("server");
  config.min_version = TLS1_VERSION;
  config.max_version = TLS1_VERSION;
  start_peer(config);
  LogCapture log;
  Attempt a = handshake(peer_->port(), nullptr, ca_dir_.c_str(), 5, 0, 0, nullptr);
  EXPECT_EQ(DL_ERR_SSL_METHOD, a.result);
  EXPECT_FALSE(a.got_session);
  EXPECT_TRUE(log.has(kCommon, kInfo, "TLS version error!\n")) << log.text();
}

TEST_F(Tls, EachFixedMethodReachesItsVersion) {
  const struct {
    int method;
    int version;
    const char *name;
  } cases[] = {{0, TLS1_VERSION, "TLSv1"}, {4, TLS1_1_VERSION, "TLSv1.1"}, {5, TLS1_2_VERSION, "TLSv1.2"}};
  for (const auto &c : cases) {
    TlsPeerConfig config = peer_config("server");
    config.min_version = TLS1_VERSION;
    config.max_version = c.version;
    start_peer(config);
    Attempt a = handshake(peer_->port(), nullptr, ca_dir_.c_str(), c.method, 1, 1, "localhost");
    EXPECT_EQ(0, a.result) << c.method;
    EXPECT_TRUE(a.got_session);
    ASSERT_TRUE(peer_->wait(5000));
    EXPECT_EQ(c.name, peer_->connection(0).version);
  }
}

TEST_F(Tls, NegotiatedMethodReachesTlsOneThree) {
  start_peer(peer_config("server"));
  EXPECT_EQ(0, verified("localhost").result);
  ASSERT_TRUE(peer_->wait(5000));
  EXPECT_EQ("TLSv1.3", peer_->connection(0).version);
}

// --- server name indication -----------------------------------------------

TEST_F(Tls, NameHostIsSentAsServerName) {
  start_peer(peer_config("server"));
  EXPECT_EQ(0, verified("localhost").result);
  ASSERT_TRUE(peer_->wait(5000));
  EXPECT_EQ("localhost", peer_->connection(0).server_name);
}

TEST_F(Tls, AddressLiteralsSendNoServerName) {
  start_peer(peer_config("server"), 2);
  EXPECT_EQ(0, verified("127.0.0.1").result);
  EXPECT_EQ(0, verified("::1").result);
  ASSERT_TRUE(peer_->wait(5000));
  EXPECT_EQ("", peer_->connection(0).server_name);
  EXPECT_EQ("", peer_->connection(1).server_name);
}

TEST_F(Tls, NullHostConnects) {
  start_peer(peer_config("server"));
  EXPECT_EQ(0, handshake(peer_->port(), nullptr, ca_dir_.c_str(), 3, 1, 0, nullptr).result);
}

// --- verification ---------------------------------------------------------

TEST_F(Tls, VerificationOffAcceptsSelfSignedWithWrongName) {
  start_peer(peer_config("selfsigned"));
  LogCapture log;
  Attempt a = handshake(peer_->port(), nullptr, ca_dir_.c_str(), 3, 0, 1, "wrong.example");
  EXPECT_EQ(0, a.result);
  EXPECT_TRUE(a.got_session);
  EXPECT_FALSE(log.mentions("trust check error")) << log.text();
}

TEST_F(Tls, SelfSignedFailsTheHandshakeWhenVerifying) {
  start_peer(peer_config("selfsigned"));
  LogCapture log;
  Attempt a = verified("localhost");
  EXPECT_EQ(DL_ERR_CERT_VERIFY, a.result);
  EXPECT_FALSE(a.got_session);
  // 18: self-signed leaf; 134: certificate verify failed.
  EXPECT_TRUE(log.has(kCommon, kError, "Certificate doesn't verify and error is 18, reason 134\n"))
      << log.text();
}

TEST_F(Tls, ExpiredCertificateFailsWithVerifyCode) {
  start_peer(peer_config("expired"));
  LogCapture log;
  EXPECT_EQ(DL_ERR_CERT_VERIFY, verified("localhost").result);
  EXPECT_TRUE(log.has(kCommon, kError, "Certificate doesn't verify and error is 10, reason 134\n"))
      << log.text();
}

TEST_F(Tls, VerifiedWithoutHostCheckIgnoresTheName) {
  start_peer(peer_config("server"));
  EXPECT_EQ(0, handshake(peer_->port(), nullptr, ca_dir_.c_str(), 3, 1, 0, "other.example").result);
}

TEST_F(Tls, EmptyTrustDirectoryFailsVerification) {
  TempDir empty;
  start_peer(peer_config("server"));
  LogCapture log;
  EXPECT_EQ(DL_ERR_CERT_VERIFY,
            handshake(peer_->port(), nullptr, empty.path().c_str(), 3, 1, 1, "localhost").result);
  // 20: unable to get the local issuer certificate.
  EXPECT_TRUE(log.has(kCommon, kError, "Certificate doesn't verify and error is 20, reason 134\n"))
      << log.text();
}

TEST_F(Tls, MissingTrustDirectoryArgumentFailsToLoad) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
  LogCapture log;
  SSL *ssl = nullptr;
  SSL_CTX *ctx = nullptr;
  EXPECT_EQ(-3, dl_do_SSL_connect(pair[0], nullptr, nullptr, 3, 0, 0, nullptr, &ssl, &ctx));
  EXPECT_TRUE(log.mentions("loading CA certificate: ")) << log.text();
  close(pair[0]);
  close(pair[1]);
}

// --- host-name check ------------------------------------------------------

TEST_F(Tls, WildcardStandsForTheFirstLabelOnly) {
  start_peer(peer_config("server"), 4);
  EXPECT_EQ(0, verified("a.wild.test").result);
  EXPECT_EQ(0, verified("A.WILD.TEST").result);
  LogCapture log;
  EXPECT_EQ(-3, verified("wild.test").result);
  expect_mismatch(log);
  log.clear();
  EXPECT_EQ(-3, verified("b.a.wild.test").result);
  expect_mismatch(log);
}

TEST_F(Tls, DnsAlternativeNameComparesWithoutCase) {
  start_peer(peer_config("server"), 2);
  EXPECT_EQ(0, verified("LocalHost").result);
  LogCapture log;
  EXPECT_EQ(-3, verified("localhost2").result);
  expect_mismatch(log);
}

TEST_F(Tls, AddressLiteralsMatchIpAlternativeNames) {
  start_peer(peer_config("server"), 3);
  EXPECT_EQ(0, verified("127.0.0.1").result);
  EXPECT_EQ(0, verified("[::1]").result);
  LogCapture log;
  EXPECT_EQ(-3, verified("127.0.0.2").result);
  expect_mismatch(log);
}

TEST_F(Tls, CommonNameMatchesWithoutAlternativeNames) {
  start_peer(peer_config("cnonly"), 2);
  EXPECT_EQ(0, verified("LOCALHOST").result);
  LogCapture log;
  EXPECT_EQ(-3, verified("127.0.0.1").result);
  expect_mismatch(log);
}

// An address literal skips DNS alternative names and compares the common
// name as text.
TEST_F(Tls, AddressLiteralFallsBackToTheCommonNameText) {
  TempDir dir;
  std::string cert = dir.file("ip.crt");
  std::string key = dir.file("ip.key");
  std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1"
                        " -addext subjectAltName=DNS:other.test -addext basicConstraints=CA:FALSE"
                        " -CA " + pki("ca.crt") + " -CAkey " + pki("ca.key") + " -keyout " + key +
                        " -out " + cert + " >/dev/null 2>&1";
  ASSERT_EQ(0, system(command.c_str()));
  TlsPeerConfig config;
  config.cert = cert;
  config.key = key;
  start_peer(config, 3);
  EXPECT_EQ(0, verified("127.0.0.1").result);
  EXPECT_EQ(0, verified("other.test").result);
  LogCapture log;
  EXPECT_EQ(-3, verified("127.0.0.2").result);
  expect_mismatch(log);
}

// --- handshake failures ---------------------------------------------------

TEST_F(Tls, SilentServerFailsAfterThreeSeconds) {
  quarry_test::TcpPeer silent;
  silent.add({quarry_test::sleep_ms(5000)});
  silent.start();
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  Attempt a = handshake(silent.port(), nullptr, ca_dir_.c_str(), 3, 0, 0, nullptr);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(-3, a.result);
  EXPECT_GT(seconds, 2.5);
  EXPECT_LT(seconds, 4.5);
  EXPECT_TRUE(log.mentions("SSL_connect select(read) error (")) << log.text();
}

TEST_F(Tls, ServerClosingDuringHandshakeFails) {
  quarry_test::TcpPeer closing;
  closing.add({quarry_test::read_bytes(1), quarry_test::close_conn()});
  closing.start();
  LogCapture log;
  EXPECT_EQ(-3, handshake(closing.port(), nullptr, ca_dir_.c_str(), 3, 0, 0, nullptr).result);
  EXPECT_TRUE(log.has(kCommon, kInfo, "SSL_connect write/read error\n")) << log.text();
}

// --- client credentials ---------------------------------------------------

class TlsClient : public Tls {
 protected:
  void start_mtls() {
    TlsPeerConfig config = peer_config("server");
    config.client_ca = pki("ca.crt");
    start_peer(config);
  }
  int with_cert(const std::string &file) {
    return handshake(peer_->port(), file.c_str(), ca_dir_.c_str(), 5, 1, 1, "localhost").result;
  }
};

TEST_F(TlsClient, CertificateAndKeyFromOneFileAreSent) {
  start_mtls();
  EXPECT_EQ(0, with_cert(pki("client.pem")));
  ASSERT_TRUE(peer_->wait(5000));
  EXPECT_NE(std::string::npos, peer_->connection(0).client_subject.find("phone-client"))
      << peer_->connection(0).client_subject;
}

TEST_F(TlsClient, MissingFileGoesOnWithoutCredentials) {
  start_mtls();
  LogCapture log;
  EXPECT_EQ(0, with_cert("/nonexistent/client.pem"));
  EXPECT_TRUE(log.has(kCommon, kInfo, "Https ca serverfile file no exist\n")) << log.text();
  ASSERT_TRUE(peer_->wait(5000));
  EXPECT_EQ("", peer_->connection(0).client_subject);
}

TEST_F(TlsClient, EmptyPathCountsAsMissing) {
  start_mtls();
  LogCapture log;
  EXPECT_EQ(0, with_cert(""));
  EXPECT_TRUE(log.has(kCommon, kInfo, "Https ca serverfile file no exist\n")) << log.text();
}

TEST_F(TlsClient, UnreadableCertificateFails) {
  TempDir dir;
  std::string junk = dir.write("junk.pem", "not a certificate\n");
  start_mtls();
  LogCapture log;
  EXPECT_EQ(-3, with_cert(junk));
  EXPECT_TRUE(log.has(kCommon, kError, "load publick key error\n")) << log.text();
}

TEST_F(TlsClient, CertificateWithoutKeyFails) {
  start_mtls();
  LogCapture log;
  EXPECT_EQ(-3, with_cert(pki("client.crt")));
  EXPECT_TRUE(log.has(kCommon, kError, "Can't load private key from CA_serverfile\n")) << log.text();
}

TEST_F(TlsClient, EncryptedKeyNeedsThePassPhrase) {
  start_mtls();
  ASSERT_EQ(0, dl_set_option(DL_OPT_KEY_PASSWORD, "wrongpass"));
  LogCapture log;
  EXPECT_EQ(-3, with_cert(pki("client_enc.pem")));
  EXPECT_TRUE(log.has(kCommon, kError, "Can't load private key from CA_serverfile\n")) << log.text();
}

TEST_F(TlsClient, EncryptedKeyOpensWithThePassPhrase) {
  start_mtls();
  ASSERT_EQ(0, dl_set_option(DL_OPT_KEY_PASSWORD, "phonepass"));
  LogCapture log;
  EXPECT_EQ(0, with_cert(pki("client_enc.pem")));
  EXPECT_TRUE(log.mentions("pwd length:9\n")) << log.text();
  ASSERT_TRUE(peer_->wait(5000));
  EXPECT_NE(std::string::npos, peer_->connection(0).client_subject.find("phone-client"));
}

TEST_F(TlsClient, KeyNotMatchingIsReportedAndTheConnectionGoesOn) {
  start_peer(peer_config("server"));
  LogCapture log;
  EXPECT_EQ(0, with_cert(pki("client_eckey.pem")));
  EXPECT_TRUE(log.has(kCommon, kError, "Private key not match\n")) << log.text();
}

}  // namespace

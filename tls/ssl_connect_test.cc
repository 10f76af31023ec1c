// dl_do_SSL_connect against an in-process TLS server with the test PKI:
// context set-up, methods and versions, server name indication, client
// credentials, and the checks of the server's certificate.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <string>

#include "tls/tls_test_support.h"

namespace {

using quarry_test::TlsPeer;
using quarry_test::TlsPeerConfig;
using quarry_tls_test::TlsTest;

class SslConnect : public TlsTest {
 protected:
  void set_password(const char *text) { dl_set_option(DL_OPT_KEY_PASSWORD, text); }
  void expect_outs_untouched() {
    EXPECT_EQ(ssl_, nullptr);
    EXPECT_EQ(ctx_, nullptr);
  }
};

TEST_F(SslConnect, MethodAboveFiveFailsBeforeAnyTraffic) {
  quarry_test::TcpPeer peer;
  peer.add({quarry_test::read_to_end()});
  peer.start();
  connect_to(peer.port());
  EXPECT_EQ(handshake(6, 0, 0, "localhost"), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "wrong method\n")) << log_->text();
  expect_outs_untouched();
  release();
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.received(0), "");
}

TEST_F(SslConnect, Ssl2AndSsl3FailAsAContextThatCannotBeMade) {
  for (int method : {1, 2}) {
    log_->clear();
    EXPECT_EQ(dl_do_SSL_connect(-1, nullptr, pki("cadir").c_str(), method, 0, 0, nullptr, &ssl_,
                                &ctx_),
              DL_ERR_CONNECT);
    EXPECT_TRUE(log_->has(2, 3, "SSL_CTX_new Error\n")) << log_->text();
    expect_outs_untouched();
  }
}

TEST_F(SslConnect, EmptyCaDirectoryCannotBeLoaded) {
  EXPECT_EQ(dl_do_SSL_connect(-1, nullptr, "", 3, 0, 0, nullptr, &ssl_, &ctx_), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "loading CA certificate: invalid directory\n")) << log_->text();
  expect_outs_untouched();
}

TEST_F(SslConnect, MissingOutsAreRefused) {
  EXPECT_EQ(dl_do_SSL_connect(-1, nullptr, "/", 3, 0, 0, nullptr, nullptr, &ctx_), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Invaild paramter\n"));
}

TEST_F(SslConnect, NegotiatedMethodReachesTls13AndHandsBothObjectsOut) {
  TlsPeer peer(server());
  EXPECT_EQ(handshake_with(&peer, 3, 0, 0, "localhost"), 0) << log_->text();
  ASSERT_NE(ssl_, nullptr);
  ASSERT_NE(ctx_, nullptr);
  EXPECT_EQ(SSL_version(ssl_), TLS1_3_VERSION);
  EXPECT_EQ(SSL_get_SSL_CTX(ssl_), ctx_);
  EXPECT_EQ(SSL_get_fd(ssl_), fd_);
  // The socket stays the caller's, left non-blocking.
  EXPECT_NE(fcntl(fd_, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_FALSE(log_->mentions("Https ca serverfile"));
  release();
  EXPECT_TRUE(peer.wait());
  EXPECT_TRUE(peer.connection(0).handshake_ok);
}

TEST_F(SslConnect, EachFixedMethodSpeaksItsVersion) {
  struct Row {
    int method;
    const char *version;
  };
  for (Row row : {Row{0, "TLSv1"}, Row{4, "TLSv1.1"}, Row{5, "TLSv1.2"}}) {
    TlsPeerConfig config = server();
    config.min_version = TLS1_VERSION;
    config.ciphers = "DEFAULT:@SECLEVEL=0";
    TlsPeer peer(config);
    EXPECT_EQ(handshake_with(&peer, row.method, 0, 0, "localhost"), 0) << row.method << log_->text();
    release();
    EXPECT_TRUE(peer.wait());
    EXPECT_EQ(peer.connection(0).version, row.version);
  }
}

TEST_F(SslConnect, Tls12OnlyClientMeetingATls10ServerIsAVersionError) {
  TlsPeerConfig config = server();
  config.min_version = config.max_version = TLS1_VERSION;
  config.ciphers = "DEFAULT:@SECLEVEL=0";
  TlsPeer peer(config);
  EXPECT_EQ(handshake_with(&peer, 5, 0, 0, "localhost"), DL_ERR_SSL_METHOD);
  EXPECT_TRUE(log_->has(2, 6, "TLS version error!\n")) << log_->text();
  expect_outs_untouched();
}

TEST_F(SslConnect, ProtocolVersionAlertIsNoVersionError) {
  TlsPeerConfig config = server();
  config.min_version = TLS1_2_VERSION;
  TlsPeer peer(config);
  EXPECT_EQ(handshake_with(&peer, 0, 0, 0, "localhost"), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 0, reason 1070\n"))
      << log_->text();
  EXPECT_FALSE(log_->mentions("TLS version error"));
}

TEST_F(SslConnect, ServerNameIsSentForANameOnly) {
  struct Row {
    const char *host;
    const char *sent;
  };
  for (Row row : {Row{"localhost", "localhost"}, Row{"127.0.0.1", ""}, Row{nullptr, ""}}) {
    TlsPeer peer(server());
    EXPECT_EQ(handshake_with(&peer, 3, 0, 0, row.host), 0);
    release();
    EXPECT_TRUE(peer.wait());
    EXPECT_EQ(peer.connection(0).server_name, row.sent) << (row.host ? row.host : "null");
  }
}

TEST_F(SslConnect, NoServerNameForAnIpv6Literal) {
  TlsPeer peer(server(), true);
  ASSERT_TRUE(peer.ok());
  peer.add({});
  peer.start();
  connect_to(peer.port(), true);
  EXPECT_EQ(handshake(3, 1, 1, "::1"), 0) << log_->text();
  release();
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.connection(0).server_name, "");
}

TEST_F(SslConnect, ServerNameOpenSslRefusesIsLoggedAndLeftOut) {
  std::string long_name(300, 'a');
  TlsPeer peer(server());
  EXPECT_EQ(handshake_with(&peer, 3, 0, 0, long_name.c_str()), 0);
  EXPECT_TRUE(log_->has(2, 4, "Configure server name indication fail\n")) << log_->text();
  release();
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.connection(0).server_name, "");
}

TEST_F(SslConnect, TrustedChainAndMatchingNamePass) {
  for (const char *host : {"localhost", "127.0.0.1", "a.wild.test"}) {
    TlsPeer peer(server());
    EXPECT_EQ(handshake_with(&peer, 3, 1, 1, host), 0) << host << log_->text();
    release();
  }
  EXPECT_FALSE(log_->mentions("trust check error"));
}

TEST_F(SslConnect, WildcardDoesNotCoverTheBareOrADeeperName) {
  for (const char *host : {"wild.test", "b.a.wild.test"}) {
    log_->clear();
    TlsPeer peer(server());
    EXPECT_EQ(handshake_with(&peer, 3, 1, 1, host), DL_ERR_CONNECT) << host;
    EXPECT_TRUE(log_->has(2, 3, "Common name and subject alt name doesn't match host name\n"));
    EXPECT_TRUE(log_->has(2, 3, "trust check error\n"));
    expect_outs_untouched();
    release();
  }
}

TEST_F(SslConnect, HostCheckOffAcceptsAnyName) {
  TlsPeer peer(server());
  EXPECT_EQ(handshake_with(&peer, 3, 1, 0, "elsewhere.test"), 0) << log_->text();
}

TEST_F(SslConnect, CommonNameServesWhenThereAreNoAlternativeNames) {
  {
    TlsPeer peer(server("cnonly"));
    EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost"), 0) << log_->text();
    release();
  }
  TlsPeer peer(server("cnonly"));
  EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "127.0.0.1"), DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Common name and subject alt name doesn't match host name\n"));
}

TEST_F(SslConnect, SelfSignedServerFailsVerification) {
  TlsPeer peer(server("selfsigned"));
  EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost"), DL_ERR_CERT_VERIFY);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 18, reason 134\n"))
      << log_->text();
  expect_outs_untouched();
}

TEST_F(SslConnect, ExpiredServerCertificateFailsVerification) {
  TlsPeer peer(server("expired"));
  EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost"), DL_ERR_CERT_VERIFY);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 10, reason 134\n"))
      << log_->text();
}

TEST_F(SslConnect, UnknownIssuerFailsVerification) {
  quarry_test::TempDir empty;
  TlsPeer peer(server());
  peer.add({});
  peer.start();
  connect_to(peer.port());
  EXPECT_EQ(handshake(3, 1, 1, "localhost", nullptr, empty.path()), DL_ERR_CERT_VERIFY);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 20, reason 134\n"))
      << log_->text();
}

TEST_F(SslConnect, VerificationOffAcceptsASelfSignedCertificateWithAWrongName) {
  TlsPeer peer(server("selfsigned"));
  EXPECT_EQ(handshake_with(&peer, 3, 0, 1, "wrong.name.test"), 0) << log_->text();
  EXPECT_FALSE(log_->mentions("trust check error"));
}

TEST_F(SslConnect, MissingClientCertificateFileGoesOnWithout) {
  for (const char *file : {"/nonexistent/client.pem", ""}) {
    log_->clear();
    TlsPeerConfig config = server();
    config.client_ca = pki("ca.crt");
    TlsPeer peer(config);
    EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost", file), 0) << log_->text();
    EXPECT_TRUE(log_->has(2, 6, "Https ca serverfile file no exist\n"));
    release();
    EXPECT_TRUE(peer.wait());
    EXPECT_EQ(peer.connection(0).client_subject, "");
  }
}

TEST_F(SslConnect, ClientCertificateAndKeyFromOneFile) {
  TlsPeerConfig config = server();
  config.client_ca = pki("ca.crt");
  config.require_client_cert = true;
  TlsPeer peer(config);
  std::string file = pki("client.pem");
  EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost", file.c_str(),
                           {quarry_test::send_bytes("x")}),
            0)
      << log_->text();
  char byte = 0;
  // The server's check of the certificate comes after the client's end of
  // a TLS 1.3 handshake: read to be sure it was taken.
  for (int i = 0; i < 100 && SSL_read(ssl_, &byte, 1) != 1; ++i) usleep(10000);
  EXPECT_EQ(byte, 'x');
  release();
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.connection(0).client_subject, "/CN=phone-client");
}

TEST_F(SslConnect, EncryptedKeyIsOpenedWithTheKeyPassword) {
  set_password("phonepass");
  TlsPeerConfig config = server();
  config.client_ca = pki("ca.crt");
  TlsPeer peer(config);
  std::string file = pki("client_enc.pem");
  EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost", file.c_str()), 0) << log_->text();
  EXPECT_TRUE(log_->mentions(", pwd length:9\n")) << log_->text();
  release();
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.connection(0).client_subject, "/CN=phone-client");
}

TEST_F(SslConnect, WrongPasswordCannotLoadTheKey) {
  set_password("wrong");
  std::string file = pki("client_enc.pem");
  EXPECT_EQ(dl_do_SSL_connect(-1, file.c_str(), pki("cadir").c_str(), 3, 0, 0, nullptr, &ssl_,
                              &ctx_),
            DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Can't load private key from CA_serverfile\n")) << log_->text();
  expect_outs_untouched();
}

TEST_F(SslConnect, KeyOfAnotherTypeIsReportedAndTheConnectionGoesOn) {
  TlsPeerConfig config = server();
  config.client_ca = pki("ca.crt");
  TlsPeer peer(config);
  std::string file = pki("client_eckey.pem");
  EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost", file.c_str()), 0) << log_->text();
  EXPECT_TRUE(log_->has(2, 3, "Private key not match\n")) << log_->text();
}

TEST_F(SslConnect, OtherKeyOfTheSameTypeCannotBeLoaded) {
  std::string file = pki("client_otherkey.pem");
  EXPECT_EQ(dl_do_SSL_connect(-1, file.c_str(), pki("cadir").c_str(), 3, 0, 0, nullptr, &ssl_,
                              &ctx_),
            DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Can't load private key from CA_serverfile\n")) << log_->text();
}

TEST_F(SslConnect, FileWithoutACertificateIsRefused) {
  std::string file = pki("client.key");
  EXPECT_EQ(dl_do_SSL_connect(-1, file.c_str(), pki("cadir").c_str(), 3, 0, 0, nullptr, &ssl_,
                              &ctx_),
            DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "load publick key error\n")) << log_->text();
}

TEST_F(SslConnect, ServerRefusingAMissingClientCertificateIsAnAlert) {
  TlsPeerConfig config = server();
  config.client_ca = pki("ca.crt");
  config.require_client_cert = true;
  config.max_version = TLS1_2_VERSION;
  TlsPeer peer(config);
  EXPECT_EQ(handshake_with(&peer, 3, 1, 1, "localhost"), DL_ERR_TLS_ALERT);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 0, reason 1040\n"))
      << log_->text();
}

TEST_F(SslConnect, FallbackCipherListStillConnects) {
  dl_set_option(DL_OPT_SSL_CIPHER_LIST, "NO-SUCH-CIPHER");
  TlsPeerConfig config = server();
  config.max_version = TLS1_2_VERSION;
  TlsPeer peer(config);
  EXPECT_EQ(handshake_with(&peer, 5, 1, 1, "localhost"), 0) << log_->text();
  // RSA key exchange only.
  EXPECT_EQ(std::string(SSL_get_cipher_name(ssl_)).find("ECDHE"), std::string::npos);
}

TEST_F(SslConnect, DescriptorAboveTheSelectLimitIsWaitedOnSafely) {
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max <= FD_SETSIZE + 10) GTEST_SKIP() << "descriptor limit too low";
  rlimit raised = limit;
  raised.rlim_cur = FD_SETSIZE + 10;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  TlsPeer peer(server());
  peer.add({});
  peer.start();
  connect_to(peer.port());
  int high = dup2(fd_, FD_SETSIZE + 5);
  ASSERT_EQ(high, FD_SETSIZE + 5);
  close(fd_);
  fd_ = high;
  EXPECT_EQ(handshake(3, 1, 1, "localhost"), 0) << log_->text();
  release();
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(SslConnect, WritesToAVanishedServerFailWithoutSigpipe) {
  TlsPeer peer(server());
  EXPECT_EQ(handshake_with(&peer, 3, 0, 0, "localhost", nullptr, {quarry_test::reset_conn()}), 0);
  EXPECT_TRUE(peer.wait());
  struct sigaction old_action;
  struct sigaction dfl = {};
  dfl.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &dfl, &old_action);
  std::string block(16384, 'w');
  int last = 1;
  for (int i = 0; i < 50 && last > 0; ++i) {
    last = SSL_write(ssl_, block.data(), static_cast<int>(block.size()));
    if (last <= 0 && SSL_get_error(ssl_, last) == SSL_ERROR_WANT_WRITE) last = 1;
  }
  sigaction(SIGPIPE, &old_action, nullptr);
  EXPECT_LE(last, 0);
}

}  // namespace

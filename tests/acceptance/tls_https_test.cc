// The cipher-list functions, the pass-phrase and verification callbacks,
// and HTTPS transfers: the version fallback over new connections, trust and
// client credentials through the HTTP client, against a loopback TLS peer,
// openssl s_server and nginx.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

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
constexpr int kNotice = 5;
constexpr int kInfo = 6;
constexpr const char kFallbackCiphers[] = "RSA:!EXP:!LOW:!NULL:!MD5:@STRENGTH";

std::string pki(const std::string &file) { return RealServer::pki(file); }

int set_number(int id, uint32_t value) { return dl_set_option(id, &value); }

// The names of the ciphers a context would offer, in order.
std::string cipher_names(SSL_CTX *ctx) {
  std::string names;
  STACK_OF(SSL_CIPHER) *list = SSL_CTX_get_ciphers(ctx);
  for (int i = 0; i < sk_SSL_CIPHER_num(list); ++i) {
    names += SSL_CIPHER_get_name(sk_SSL_CIPHER_value(list, i));
    names += ":";
  }
  return names;
}

std::string names_for(const char *list) {
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  EXPECT_EQ(1, SSL_CTX_set_cipher_list(ctx, list));
  std::string names = cipher_names(ctx);
  SSL_CTX_free(ctx);
  return names;
}

class TlsSettings : public ::testing::Test {
 protected:
  void SetUp() override { dl_config_init(); }
  void TearDown() override { dl_exit(); }
};

// --- cipher lists ---------------------------------------------------------

TEST_F(TlsSettings, CheckRefusesNullText) {
  LogCapture log;
  EXPECT_EQ(-1, dl_https_check_cipher_str(nullptr));
  EXPECT_TRUE(log.has(kCommon, kError, "Invaild paramter\n")) << log.text();
}

TEST_F(TlsSettings, CheckRefusesAMethodAboveFive) {
  g_dl_cfg.ssl_method = 6;
  LogCapture log;
  EXPECT_EQ(-1, dl_https_check_cipher_str("DEFAULT"));
  EXPECT_TRUE(log.has(kCommon, kError, "wrong method\n")) << log.text();
}

TEST_F(TlsSettings, CheckRefusesAListSelectingNothing) {
  ASSERT_EQ(0, set_number(DL_OPT_SSL_METHOD, 5));
  LogCapture log;
  EXPECT_EQ(-1, dl_https_check_cipher_str("NOSUCHCIPHER"));
  EXPECT_TRUE(log.has(kCommon, kInfo, "set cipher list  ret 0\n")) << log.text();
}

TEST_F(TlsSettings, CheckAcceptsAndCountsAUsableList) {
  ASSERT_EQ(0, set_number(DL_OPT_SSL_METHOD, 5));
  LogCapture log;
  EXPECT_EQ(0, dl_https_check_cipher_str("AES128-SHA"));
  EXPECT_TRUE(log.mentions("ssl cipher num is ")) << log.text();
  EXPECT_FALSE(log.has(kCommon, kInfo, "ssl cipher num is 0\n")) << log.text();
}

TEST_F(TlsSettings, EmptyListSetsDefault) {
  g_dl_cfg.ssl_cipher_list[0] = '\0';
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  ASSERT_EQ(1, SSL_CTX_set_cipher_list(ctx, "AES128-SHA"));
  EXPECT_EQ(0, dl_https_set_ssl_cipher(ctx));
  EXPECT_EQ(names_for("DEFAULT"), cipher_names(ctx));
  SSL_CTX_free(ctx);
}

TEST_F(TlsSettings, RefusedListFallsBackWithoutALine) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_SSL_CIPHER_LIST, "NOSUCHCIPHER"));
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  LogCapture log;
  EXPECT_EQ(0, dl_https_set_ssl_cipher(ctx));
  EXPECT_EQ(names_for(kFallbackCiphers), cipher_names(ctx));
  EXPECT_FALSE(log.mentions("set cipher list ret")) << log.text();
  SSL_CTX_free(ctx);
}

TEST_F(TlsSettings, UsableListIsSetAsGiven) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_SSL_CIPHER_LIST, "AES256-SHA"));
  SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
  EXPECT_EQ(0, dl_https_set_ssl_cipher(ctx));
  EXPECT_EQ(names_for("AES256-SHA"), cipher_names(ctx));
  SSL_CTX_free(ctx);
}

// A server that shares no cipher with the client ends the handshake with a
// handshake-failure alert (reason 1040).
TEST_F(TlsSettings, NoCommonCipherIsAnAlert) {
  TlsPeerConfig config;
  config.cert = pki("server.crt");
  config.key = pki("server.key");
  config.max_version = TLS1_2_VERSION;
  config.ciphers = "ECDHE-RSA-AES256-GCM-SHA384";
  TlsPeer peer(config);
  ASSERT_TRUE(peer.ok());
  peer.add({});
  peer.start();
  ASSERT_EQ(0, dl_set_option(DL_OPT_SSL_CIPHER_LIST, "AES128-SHA"));
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(peer.port());
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)));
  LogCapture log;
  SSL *ssl = nullptr;
  SSL_CTX *ctx = nullptr;
  EXPECT_EQ(DL_ERR_TLS_ALERT,
            dl_do_SSL_connect(fd, nullptr, pki("cadir").c_str(), 5, 0, 0, nullptr, &ssl, &ctx));
  EXPECT_TRUE(log.has(kCommon, kError, "Certificate doesn't verify and error is 0, reason 1040\n"))
      << log.text();
  EXPECT_EQ(nullptr, ssl);
  close(fd);
}

// --- pass-phrase callback -------------------------------------------------

TEST_F(TlsSettings, PassphraseComesFromTheSettings) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_KEY_PASSWORD, "phonepass"));
  char buf[64];
  memset(buf, 'X', sizeof(buf));
  LogCapture log;
  EXPECT_EQ(9, password_cb(buf, 64, 0, nullptr));
  EXPECT_STREQ("phonepass", buf);
  EXPECT_TRUE(log.has(kCommon, kInfo, "num is 64, pwd length:9\n")) << log.text();
}

TEST_F(TlsSettings, PassphraseFromUserDataIsCutToTheBuffer) {
  char buf[8];
  memset(buf, 'X', sizeof(buf));
  char secret[] = "secret";
  EXPECT_EQ(3, password_cb(buf, 3, 1, secret));
  EXPECT_EQ(0, memcmp(buf, "secX", 4));
  EXPECT_EQ(6, password_cb(buf, 8, 0, secret));
  EXPECT_EQ(0, memcmp(buf, "secretXX", 8));
}

// --- verification callback ------------------------------------------------

class VerifyCallback : public TlsSettings {
 protected:
  void SetUp() override {
    TlsSettings::SetUp();
    FILE *file = fopen(pki("selfsigned.crt").c_str(), "r");
    ASSERT_NE(nullptr, file);
    cert_ = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
    ASSERT_NE(nullptr, cert_);
    store_ = X509_STORE_new();
    store_ctx_ = X509_STORE_CTX_new();
    ASSERT_EQ(1, X509_STORE_CTX_init(store_ctx_, store_, cert_, nullptr));
    X509_STORE_CTX_set_current_cert(store_ctx_, cert_);
  }
  void TearDown() override {
    X509_STORE_CTX_free(store_ctx_);
    X509_STORE_free(store_);
    X509_free(cert_);
    TlsSettings::TearDown();
  }
  int judge(int error, int depth) {
    X509_STORE_CTX_set_error(store_ctx_, error);
    X509_STORE_CTX_set_error_depth(store_ctx_, depth);
    return cb(0, store_ctx_);
  }
  X509 *cert_ = nullptr;
  X509_STORE *store_ = nullptr;
  X509_STORE_CTX *store_ctx_ = nullptr;
};

TEST_F(VerifyCallback, KeepsAPassedCheck) {
  LogCapture log;
  EXPECT_EQ(1, cb(1, store_ctx_));
  EXPECT_EQ("", log.text());
}

TEST_F(VerifyCallback, LogsTheSubjectAndTheError) {
  LogCapture log;
  EXPECT_EQ(1, judge(X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, 0));
  EXPECT_TRUE(log.has(kCommon, kNotice, "/CN=localhost\n")) << log.text();
  std::string line = std::string("verify cb error 18 at 0 depth lookup:") +
                     X509_verify_cert_error_string(18) + "\n";
  EXPECT_TRUE(log.has(kCommon, kNotice, line)) << log.text();
}

TEST_F(VerifyCallback, ToleratesExactlyTheListedErrors) {
  const int tolerated[] = {X509_V_ERR_CRL_NOT_YET_VALID,        X509_V_ERR_CRL_HAS_EXPIRED,
                           X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, X509_V_ERR_INVALID_CA,
                           X509_V_ERR_PATH_LENGTH_EXCEEDED,     X509_V_ERR_INVALID_PURPOSE,
                           X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION};
  for (int error : tolerated) EXPECT_EQ(1, judge(error, 1)) << error;
  const int refused[] = {X509_V_ERR_CERT_HAS_EXPIRED, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                         X509_V_ERR_CERT_SIGNATURE_FAILURE, X509_V_ERR_CERT_REVOKED,
                         X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN};
  for (int error : refused) EXPECT_EQ(0, judge(error, 1)) << error;
}

// --- HTTPS transfers ------------------------------------------------------

class HttpsTransfer : public TlsSettings {
 protected:
  int download(const std::string &url, dl_error *err) {
    std::string u = url;
    dl_request req{};
    req.url = &u[0];
    char redirect[512] = {0};
    return dl_download(&req, file_.c_str(), redirect, err);
  }
  // The default method (TLS 1.0 only) reaches none of these servers.
  void trust(int verify, int check_host, const std::string &ca_dir, int method = 3) {
    ASSERT_EQ(0, set_number(DL_OPT_SSL_METHOD, method));
    ASSERT_EQ(0, set_number(DL_OPT_SSL_VERIFY, verify));
    ASSERT_EQ(0, set_number(DL_OPT_SSL_CHECK_HOST, check_host));
    ASSERT_EQ(0, dl_set_option(DL_OPT_SSL_CA_PATH, ca_dir.c_str()));
  }
  TempDir dir_;
  std::string file_ = dir_.file("out.bin");
};

TEST_F(HttpsTransfer, VersionFallbackOpensANewConnectionPerMethod) {
  TlsPeerConfig config;
  config.cert = pki("server.crt");
  config.key = pki("server.key");
  config.min_version = TLS1_VERSION;
  config.max_version = TLS1_VERSION;
  config.ciphers = "DEFAULT:@SECLEVEL=0";
  TlsPeer peer(config);
  ASSERT_TRUE(peer.ok());
  for (int i = 0; i < 3; ++i) {
    peer.add({quarry_test::read_until("\r\n\r\n"),
              quarry_test::send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"),
              quarry_test::close_conn()});
  }
  peer.start();
  trust(1, 1, pki("cadir"), 5);
  LogCapture log;
  dl_error err{};
  EXPECT_EQ(0, download("https://localhost:" + std::to_string(peer.port()) + "/f", &err)) << err.msg;
  EXPECT_EQ("hello", quarry_test::read_file(file_));
  EXPECT_EQ(3u, peer.accepted());
  EXPECT_EQ(1, log.count(kCommon, kInfo, "Reset ssl methmod!\n")) << log.text();
  EXPECT_EQ(2, log.count(kCommon, kInfo, "TLS version error!\n")) << log.text();
  EXPECT_EQ("TLSv1", peer.connection(2).version);
}

TEST_F(HttpsTransfer, SelfSignedServerFailsTheDownloadWhenVerifying) {
  TlsPeerConfig config;
  config.cert = pki("selfsigned.crt");
  config.key = pki("selfsigned.key");
  TlsPeer peer(config);
  ASSERT_TRUE(peer.ok());
  peer.add({});
  peer.start();
  trust(1, 1, pki("cadir"));
  LogCapture log;
  dl_error err{};
  EXPECT_NE(0, download("https://127.0.0.1:" + std::to_string(peer.port()) + "/f", &err));
  EXPECT_EQ(DL_ERR_CERT_VERIFY, err.code) << err.msg << log.text();
  EXPECT_FALSE(quarry_test::file_exists(file_));
}

TEST_F(HttpsTransfer, NginxFileWithTrustAndHostCheck) {
  QUARRY_USE_SERVER(nginx, "nginx");
  trust(1, 1, pki("cadir"));
  LogCapture log;
  dl_error err{};
  EXPECT_EQ(0, download(nginx.url("https", "/files/hello.txt"), &err)) << err.msg << log.text();
  EXPECT_EQ("hello world\n", quarry_test::read_file(file_));
}

TEST_F(HttpsTransfer, NginxUntrustedWhenTheDirectoryLacksTheCa) {
  QUARRY_USE_SERVER(nginx, "nginx");
  TempDir empty;
  trust(1, 1, empty.path());
  dl_error err{};
  EXPECT_NE(0, download(nginx.url("https", "/files/hello.txt"), &err));
  EXPECT_EQ(DL_ERR_CERT_VERIFY, err.code) << err.msg;
}

TEST_F(HttpsTransfer, NginxSeesTheClientCertificate) {
  QUARRY_USE_SERVER(nginx, "nginx");
  trust(1, 1, pki("cadir"));
  ASSERT_EQ(0, dl_set_option(DL_OPT_SSL_CERT_PATH, pki("client.pem").c_str()));
  std::string url = nginx.url("https", "/whoami");
  dl_http_param param{};
  param.type = 0;
  param.url = &url[0];
  dl_http_conn *conn = nullptr;
  char redirect[512] = {0};
  dl_error err{};
  ASSERT_EQ(0, dl_http_open(&conn, &param, redirect, &err)) << err.msg;
  char body[512] = {0};
  int total = 0;
  for (int n; (n = dl_http_read(conn, body + total, static_cast<int>(sizeof(body)) - 1 - total, &err)) > 0;) {
    total += n;
  }
  dl_http_close(conn);
  std::string text(body, static_cast<size_t>(total));
  EXPECT_NE(std::string::npos, text.find("verify=SUCCESS")) << text;
  EXPECT_NE(std::string::npos, text.find("CN=phone-client")) << text;
}

TEST_F(HttpsTransfer, SServerTlsOneOnlyIsReachedByFallback) {
  QUARRY_USE_SERVER(tls, "tls");
  trust(1, 1, pki("cadir"), 5);
  LogCapture log;
  dl_error err{};
  EXPECT_EQ(0, download(tls.url("tls1_0", "/"), &err)) << err.msg;
  EXPECT_EQ(1, log.count(kCommon, kInfo, "Reset ssl methmod!\n")) << log.text();
  EXPECT_NE(std::string::npos, quarry_test::read_file(file_).find("TLSv1"));
}

TEST_F(HttpsTransfer, SServerTlsOneThreeByNegotiation) {
  QUARRY_USE_SERVER(tls, "tls");
  trust(1, 1, pki("cadir"));
  LogCapture log;
  dl_error err{};
  EXPECT_EQ(0, download(tls.url("tls1_3", "/"), &err)) << err.msg;
  EXPECT_FALSE(log.mentions("Reset ssl methmod!")) << log.text();
  EXPECT_NE(std::string::npos, quarry_test::read_file(file_).find("TLSv1.3"));
}

}  // namespace

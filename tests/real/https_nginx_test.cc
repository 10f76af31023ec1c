// HTTPS against a real nginx: verified downloads through the front door,
// client certificates (optional and required), Basic authentication,
// redirects between http and https, PUT uploads and streaming reads.
#include <string>

#include "tests/real/http_real_support.h"

namespace quarry_test {
namespace {

class HttpsNginx : public HttpRealTest {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    server_ = &RealServer::shared("nginx");
    QUARRY_REQUIRE_SERVER(*server_);
    // What the quarry tool sets: negotiated version, full verification.
    std::string cadir = RealServer::pki("cadir");
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, cadir.c_str()), 0);
    set_number(DL_OPT_SSL_METHOD, 3);
    set_number(DL_OPT_SSL_VERIFY, 1);
    set_number(DL_OPT_SSL_CHECK_HOST, 1);
  }
  void set_number(int option, uint32_t value) { ASSERT_EQ(dl_set_option(option, &value), 0); }
  void use_client_cert() {
    std::string pem = RealServer::pki("client.pem");
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CERT_PATH, pem.c_str()), 0);
  }
  std::string url(const std::string &path, const char *role = "https") {
    return server_->url(role, path);
  }
  std::string port(const char *role) { return std::to_string(server_->port(role)); }
  RealServer *server_ = nullptr;
};

TEST_F(HttpsNginx, DownloadsVerifiedOverTls13) {
  ASSERT_EQ(download(url("/files/hello.txt"), "hello.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("hello.txt"), "hello world\n");
  ASSERT_EQ(download(url("/whoami"), "who.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("who.txt"), "verify=NONE dn= proto=TLSv1.3\n");
}

TEST_F(HttpsNginx, DownloadsOneMebibyteByteForByte) {
  ASSERT_EQ(download(url("/files/1M.bin"), "1M.bin"), 0) << err_.msg;
  EXPECT_EQ(saved("1M.bin"), read_file(server_->doc_root() + "/files/1M.bin"));
}

TEST_F(HttpsNginx, HostNameIsCheckedAgainstTheCertificate) {
  std::string u = "https://localhost:" + port("https") + "/files/hello.txt";
  ASSERT_EQ(download(u, "hello.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("hello.txt"), "hello world\n");
}

TEST_F(HttpsNginx, Ipv6LiteralIsCheckedAgainstTheAddressEntry) {
  QUARRY_REQUIRE_IPV6(*server_);
  set_number(DL_OPT_IPV6_ENABLE, 1);
  ASSERT_EQ(download(server_->url("https", "/files/hello.txt", true), "v6.txt"), 0)
      << err_.msg << log_->text();
  EXPECT_EQ(saved("v6.txt"), "hello world\n");
}

TEST_F(HttpsNginx, UntrustedServerFailsVerificationAndLeavesNoFile) {
  TempDir empty;
  ASSERT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, empty.path().c_str()), 0);
  EXPECT_EQ(download(url("/files/hello.txt"), "hello.txt"), -1);
  EXPECT_EQ(err_.code, DL_ERR_CERT_VERIFY);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 20, reason 134\n"))
      << log_->text();
  EXPECT_FALSE(exists("hello.txt"));
}

TEST_F(HttpsNginx, ClientCertificateIsPresentedWhenOptional) {
  use_client_cert();
  ASSERT_EQ(download(url("/whoami"), "who.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("who.txt"), "verify=SUCCESS dn=CN=phone-client proto=TLSv1.3\n");
}

TEST_F(HttpsNginx, MandatoryClientCertificate) {
  EXPECT_EQ(download(url("/files/hello.txt", "mtls"), "m.txt"), -1);
  EXPECT_EQ(err_.code, 400);
  EXPECT_FALSE(exists("m.txt"));
  use_client_cert();
  ASSERT_EQ(download(url("/files/hello.txt", "mtls"), "m.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("m.txt"), "hello world\n");
}

TEST_F(HttpsNginx, BasicAuthenticationOverTls) {
  ASSERT_EQ(download(url("/private/secret.txt"), "s.txt", "user1", "pass1"), 0) << err_.msg;
  EXPECT_EQ(saved("s.txt"), "secret stuff\n");
  EXPECT_EQ(download(url("/private/secret.txt"), "s2.txt", "user1", "wrong"), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
}

TEST_F(HttpsNginx, RedirectWithinHttps) {
  ASSERT_EQ(download(url("/r301"), "r.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("r.txt"), "hello world\n");
  EXPECT_EQ(std::string(redirect_), url("/files/hello.txt"));
}

TEST_F(HttpsNginx, RedirectFromHttpsToHttp) {
  ASSERT_EQ(download(url("/tohttp"), "r.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("r.txt"), "hello world\n");
  EXPECT_EQ(std::string(redirect_), url("/files/hello.txt", "http"));
}

TEST_F(HttpsNginx, RedirectFromHttpToHttps) {
  ASSERT_EQ(download(url("/tohttps", "http"), "r.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("r.txt"), "hello world\n");
  EXPECT_EQ(std::string(redirect_), url("/files/hello.txt"));
}

TEST_F(HttpsNginx, PutUploadsSmallAndLargeFiles) {
  for (size_t size : {24u, 100000u}) {
    std::string content(size, 'u');
    std::string name = "put" + std::to_string(size) + ".txt";
    ASSERT_EQ(upload(url("/upload/" + name), name, content, DL_HTTP_PUT), 0)
        << err_.msg << log_->text();
    EXPECT_EQ(read_file(server_->upload_dir() + "/" + name), content);
  }
}

TEST_F(HttpsNginx, StreamsThroughOpenAndRead) {
  EXPECT_EQ(stream(url("/files/1M.bin")), read_file(server_->doc_root() + "/files/1M.bin"));
}

}  // namespace
}  // namespace quarry_test

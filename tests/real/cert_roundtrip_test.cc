// The certificate store meets the TLS layer and a real nginx: a CA put in
// the store by dl_install_ca is what the handshake trusts, and a client
// certificate made by dl_generate_client_cert gets through nginx's
// mandatory client-certificate check.
#include <openssl/ssl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/real/http_real_support.h"

namespace quarry_test {
namespace {

class CertRoundTrip : public HttpRealTest {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    trust_ = dir_.path() + "/trust/";
    ASSERT_EQ(dl_set_option(DL_OPT_TRUST_CA_DIR, trust_.c_str()), 0);
    // The store's all-CA directory is what the handshake is given.
    std::string ca_dir = trust_ + "ca/";
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, ca_dir.c_str()), 0);
    set_number(DL_OPT_SSL_METHOD, 3);
    set_number(DL_OPT_SSL_VERIFY, 1);
    set_number(DL_OPT_SSL_CHECK_HOST, 1);
  }
  void set_number(int option, uint32_t value) { ASSERT_EQ(dl_set_option(option, &value), 0); }
  // The test PKI's CA, copied so that the store works on a file of ours.
  std::string copy_of(const std::string &pki_file) {
    std::string path = dir_.file(pki_file);
    EXPECT_EQ(dl_copy_file(RealServer::pki(pki_file).c_str(), path.c_str()), 0);
    return path;
  }
  std::string trust_;
};

TEST_F(CertRoundTrip, InstalledCaIsTrustedByTheHandshake) {
  QUARRY_USE_SERVER(nginx, "nginx");
  std::string url = "https://localhost:" + std::to_string(nginx.port("https")) + "/files/hello.txt";
  ASSERT_EQ(mkdir(trust_.c_str(), 0755), 0);
  EXPECT_EQ(download(url, "before.txt"), -1);
  EXPECT_EQ(err_.code, DL_ERR_CERT_VERIFY) << log_->text();
  ASSERT_EQ(dl_install_ca(copy_of("ca.crt").c_str()), 0) << log_->text();
  ASSERT_EQ(download(url, "hello.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("hello.txt"), "hello world\n");
  // Deleted again, it is no longer trusted.
  EXPECT_EQ(dl_del_ca(dir_.file("ca.crt").c_str()), 0);
  EXPECT_EQ(download(url, "after.txt"), -1);
  EXPECT_EQ(err_.code, DL_ERR_CERT_VERIFY);
}

TEST_F(CertRoundTrip, InstalledCaIsTrustedByDlDoSslConnect) {
  QUARRY_USE_SERVER(nginx, "nginx");
  ASSERT_EQ(dl_install_ca(copy_of("ca.crt").c_str()), 0);
  int fd = dl_connect("127.0.0.1", nginx.port("https"), 0, 5);
  ASSERT_GE(fd, 0);
  SSL *ssl = nullptr;
  SSL_CTX *ctx = nullptr;
  std::string ca_dir = trust_ + "ca/";
  EXPECT_EQ(dl_do_SSL_connect(fd, nullptr, ca_dir.c_str(), 3, 1, 1, "localhost", &ssl, &ctx), 0)
      << log_->text();
  SSL_free(ssl);
  SSL_CTX_free(ctx);
  close(fd);
}

// MD5, the signature the phone's client certificates carry, is below the
// default security level of nginx's OpenSSL: this nginx is told to accept
// it, and the client side is told so through the cipher list.
TEST_F(CertRoundTrip, GeneratedClientCertificateIsAcceptedWhereOneIsRequired) {
  setenv("NGINX_SSL_CIPHERS", "DEFAULT:@SECLEVEL=0", 1);
  std::unique_ptr<RealServer> nginx = RealServer::start("nginx");
  unsetenv("NGINX_SSL_CIPHERS");
  QUARRY_REQUIRE_SERVER(*nginx);
  ASSERT_EQ(dl_install_ca(copy_of("ca.crt").c_str()), 0);
  ASSERT_EQ(dl_set_option(DL_OPT_CERT_GEN_PARAM, "round-trip-param"), 0);
  std::string cert = dir_.file("phone.pem");
  ASSERT_EQ(dl_generate_client_cert(copy_of("ca.crt").c_str(), copy_of("ca.key").c_str(),
                                    dir_.file("phone.key").c_str(), cert.c_str(),
                                    "/CN=phone-0001/O=Quarry", 2048),
            0)
      << log_->text();
  ASSERT_EQ(dl_set_option(DL_OPT_SSL_CIPHER_LIST, "DEFAULT:@SECLEVEL=0"), 0);
  std::string base = "https://localhost:";
  std::string mtls = base + std::to_string(nginx->port("mtls")) + "/files/hello.txt";
  EXPECT_EQ(download(mtls, "without.txt"), -1);
  EXPECT_EQ(err_.code, 400);
  ASSERT_EQ(dl_set_option(DL_OPT_SSL_CERT_PATH, cert.c_str()), 0);
  ASSERT_EQ(download(mtls, "hello.txt"), 0) << err_.msg << log_->text();
  EXPECT_EQ(saved("hello.txt"), "hello world\n");
  std::string whoami = base + std::to_string(nginx->port("https")) + "/whoami";
  ASSERT_EQ(download(whoami, "who.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("who.txt"), "verify=SUCCESS dn=O=Quarry,CN=phone-0001 proto=TLSv1.3\n");
}

}  // namespace
}  // namespace quarry_test

// HTTPS downloads from openssl s_server peers that speak one protocol
// version each: every method against every version it should reach, the
// fallback from TLS 1.2 down to a TLS 1.0-only server, and the security
// level that OpenSSL 3 needs lowered for the old versions.
#include <string>

#include "tests/real/http_real_support.h"

namespace quarry_test {
namespace {

class HttpsVersions : public HttpRealTest {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    server_ = &RealServer::shared("tls");
    QUARRY_REQUIRE_SERVER(*server_);
    std::string cadir = RealServer::pki("cadir");
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, cadir.c_str()), 0);
  }
  void set_number(int option, uint32_t value) { ASSERT_EQ(dl_set_option(option, &value), 0); }
  // Downloads the status page of the |role| server with |method|; on
  // success the page names the version the server spoke.
  int fetch(const char *role, uint32_t method) {
    set_number(DL_OPT_SSL_METHOD, method);
    return download(server_->url(role, "/"), "page.html");
  }
  bool spoke(const std::string &version) {
    return saved("page.html").find("Protocol  : " + version + "\n") != std::string::npos;
  }
  RealServer *server_ = nullptr;
};

TEST_F(HttpsVersions, EachMethodReachesTheServerOfItsVersion) {
  struct Row {
    const char *role;
    uint32_t method;
    const char *version;
  };
  for (Row row : {Row{"tls1_0", 0, "TLSv1"}, Row{"tls1_1", 4, "TLSv1.1"},
                  Row{"tls1_2", 5, "TLSv1.2"}, Row{"tls1_3", 3, "TLSv1.3"},
                  Row{"tls1_2", 3, "TLSv1.2"}}) {
    log_->clear();
    EXPECT_EQ(fetch(row.role, row.method), 0) << row.role << " " << err_.msg << log_->text();
    EXPECT_TRUE(spoke(row.version)) << row.role << saved("page.html");
    EXPECT_FALSE(log_->mentions("Reset ssl methmod!"));
  }
}

TEST_F(HttpsVersions, VerifiedWithTheTestCaAndTheAddressAsHost) {
  set_number(DL_OPT_SSL_VERIFY, 1);
  set_number(DL_OPT_SSL_CHECK_HOST, 1);
  EXPECT_EQ(fetch("tls1_3", 3), 0) << err_.msg << log_->text();
  EXPECT_FALSE(log_->mentions("trust check error"));
}

TEST_F(HttpsVersions, Tls12FallsBackToATls10OnlyServer) {
  EXPECT_EQ(fetch("tls1_0", 5), 0) << err_.msg << log_->text();
  EXPECT_TRUE(spoke("TLSv1"));
  // 5 and then 4 are refused for their version, 0 gets through.
  EXPECT_EQ(log_->count(2, 6, "TLS version error!\n"), 2) << log_->text();
  EXPECT_TRUE(log_->has(2, 6, "Reset ssl methmod!\n"));
}

TEST_F(HttpsVersions, Tls10ClientMeetingANewerServerGetsItsAlert) {
  EXPECT_EQ(fetch("tls1_3", 0), -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 0, reason 1070\n"))
      << log_->text();
  EXPECT_FALSE(exists("page.html"));
}

TEST_F(HttpsVersions, NegotiatedMethodKeepsTheSystemsLevelUnlessTheCipherListLowersIt) {
  EXPECT_EQ(fetch("tls1_0", 3), -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  // Legacy signature algorithm refused at the system's level.
  EXPECT_TRUE(log_->has(2, 3, "Certificate doesn't verify and error is 0, reason 333\n"))
      << log_->text();
  ASSERT_EQ(dl_set_option(DL_OPT_SSL_CIPHER_LIST, "DEFAULT:@SECLEVEL=0"), 0);
  log_->clear();
  EXPECT_EQ(fetch("tls1_0", 3), 0) << err_.msg << log_->text();
  EXPECT_TRUE(spoke("TLSv1"));
}

TEST_F(HttpsVersions, Tls11OnlyServerFromTls12) {
  EXPECT_EQ(fetch("tls1_1", 5), 0) << err_.msg << log_->text();
  EXPECT_TRUE(spoke("TLSv1.1"));
  EXPECT_EQ(log_->count(2, 6, "TLS version error!\n"), 1);
}

}  // namespace
}  // namespace quarry_test

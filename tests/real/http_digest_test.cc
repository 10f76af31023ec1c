// Digest authentication and multipart uploads against real apache2 and
// lighttpd servers on loopback.
#include <string>

#include "tests/real/http_real_support.h"

namespace quarry_test {
namespace {

constexpr char kBoundaryHeader[] = "Content-Type: multipart/form-data; boundary=QuarryBoundary42\r\n";

class RealDigest : public HttpRealTest, public ::testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    server_ = &RealServer::shared(GetParam());
    if (!server_->ok()) {
      if (server_->skippable()) GTEST_SKIP() << server_->error();
      FAIL() << server_->error();
    }
  }
  std::string url(const std::string &path) { return server_->url("http", path); }
  std::string digest_path() const {
    return std::string(GetParam()) == "apache" ? "/digest/hello.txt" : "/md5/hello.txt";
  }
  std::string expected_hello() const { return std::string("hello ") + GetParam() + "\n"; }
  RealServer *server_ = nullptr;
};

TEST_P(RealDigest, DigestMd5WithCorrectCredentials) {
  ASSERT_EQ(download(url(digest_path()), "d.txt", "user1", "pass1"), 0) << err_.msg;
  EXPECT_EQ(saved("d.txt"), expected_hello());
  EXPECT_TRUE(log_->has(3, 3, "http auth type: 2,\n"));
}

TEST_P(RealDigest, DigestWithWrongPasswordFails) {
  EXPECT_EQ(download(url(digest_path()), "d.txt", "user1", "nope"), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
  EXPECT_FALSE(exists("d.txt"));
}

TEST_P(RealDigest, MultipartPostStoresTheFileByteForByte) {
  std::string content;
  for (int i = 0; i < 70000; ++i) content.push_back(static_cast<char>((i * 7 + 3) & 0xff));
  ASSERT_EQ(upload(url("/cgi-bin/upload.cgi"), "firmware.bin", content, DL_HTTP_POST,
                   kBoundaryHeader),
            0)
      << err_.msg;
  EXPECT_EQ(read_file(server_->upload_dir() + "/firmware.bin"), content);
}

TEST_P(RealDigest, MultipartPostBehindDigest) {
  std::string cgi = std::string(GetParam()) == "apache" ? "/digest-cgi/upload.cgi"
                                                         : "/cgi-bin/auth-upload.cgi";
  std::string content = "phone config\nline two\n";
  ASSERT_EQ(upload(url(cgi), "phone.cfg", content, DL_HTTP_POST, kBoundaryHeader, "user1",
                   "pass1"),
            0)
      << err_.msg;
  EXPECT_EQ(read_file(server_->upload_dir() + "/phone.cfg"), content);
}

INSTANTIATE_TEST_SUITE_P(Servers, RealDigest, ::testing::Values("apache", "lighttpd"));

class Lighttpd : public HttpRealTest {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    server_ = &RealServer::shared("lighttpd");
    if (!server_->ok()) {
      if (server_->skippable()) GTEST_SKIP() << server_->error();
      FAIL() << server_->error();
    }
  }
  RealServer *server_ = nullptr;
};

TEST_F(Lighttpd, Sha256ChallengeIsRefused) {
  EXPECT_EQ(download(server_->url("http", "/sha256/hello.txt"), "s.txt", "user1", "pass1"), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
  EXPECT_TRUE(log_->has(3, 3, "Input Auth Error\n"));
}

}  // namespace
}  // namespace quarry_test

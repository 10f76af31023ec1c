// The HTTP client against a real nginx on loopback: static files, redirects,
// Basic authentication, WebDAV PUT, chunked bodies, keep-alive requests.
#include <string>

#include "tests/real/http_real_support.h"

namespace quarry_test {
namespace {

class Nginx : public HttpRealTest {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    server_ = &RealServer::shared("nginx");
    if (!server_->ok()) {
      if (server_->skippable()) GTEST_SKIP() << server_->error();
      FAIL() << server_->error();
    }
  }
  std::string url(const std::string &path) { return server_->url("http", path); }
  RealServer *server_ = nullptr;
};

TEST_F(Nginx, DownloadsStaticFile) {
  ASSERT_EQ(download(url("/files/hello.txt"), "hello.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("hello.txt"), "hello world\n");
  EXPECT_EQ(err_.code, 0);
}

TEST_F(Nginx, DownloadsOneMebibyteByteForByte) {
  ASSERT_EQ(download(url("/files/1M.bin"), "1M.bin"), 0) << err_.msg;
  EXPECT_EQ(saved("1M.bin"), read_file(server_->doc_root() + "/files/1M.bin"));
}

TEST_F(Nginx, SizeLimitRemovesTheFile) {
  uint32_t limit = 1000;
  ASSERT_EQ(dl_set_option(DL_OPT_MAX_FILE_SIZE, &limit), 0);
  EXPECT_EQ(download(url("/files/1M.bin"), "1M.bin"), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_STREQ(err_.msg, "exceed max size 1000");
  EXPECT_FALSE(exists("1M.bin"));
}

TEST_F(Nginx, MissingFileFailsWith404AndLeavesNoFile) {
  EXPECT_EQ(download(url("/files/missing.txt"), "missing.txt"), -1);
  EXPECT_EQ(err_.code, 404);
  EXPECT_STREQ(err_.msg, "Unknown Error");
  EXPECT_FALSE(exists("missing.txt"));
}

TEST_F(Nginx, Follows301AndReportsTarget) {
  ASSERT_EQ(download(url("/r301"), "r.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("r.txt"), "hello world\n");
  EXPECT_EQ(std::string(redirect_), url("/files/hello.txt"));
}

TEST_F(Nginx, Follows302) {
  ASSERT_EQ(download(url("/r302"), "r.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("r.txt"), "hello world\n");
}

TEST_F(Nginx, EndlessRedirectsStopAtTheLimit) {
  EXPECT_EQ(download(url("/loop"), "loop.txt"), -1);
  EXPECT_EQ(err_.code, DL_ERR_REDIRECT);
  EXPECT_STREQ(err_.msg, "Redirect to many times");
  EXPECT_FALSE(exists("loop.txt"));
}

TEST_F(Nginx, BasicAuthWithRequestCredentials) {
  ASSERT_EQ(download(url("/private/secret.txt"), "s.txt", "user1", "pass1"), 0) << err_.msg;
  EXPECT_EQ(saved("s.txt"), "secret stuff\n");
}

TEST_F(Nginx, BasicAuthWithCredentialsInTheUrl) {
  std::string with_login = "http://user1:pass1@" + url("/private/secret.txt").substr(7);
  ASSERT_EQ(download(with_login, "s.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("s.txt"), "secret stuff\n");
}

TEST_F(Nginx, WrongPasswordFailsWithAuthError) {
  EXPECT_EQ(download(url("/private/secret.txt"), "s.txt", "user1", "wrong"), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
  EXPECT_FALSE(exists("s.txt"));
}

TEST_F(Nginx, NoCredentialsFailsWithAuthError) {
  EXPECT_EQ(download(url("/private/secret.txt"), "s.txt"), -1);
  EXPECT_EQ(err_.code, DL_ERR_AUTH);
}

TEST_F(Nginx, PutUploadsTheFile) {
  std::string content = "uploaded by the library\n";
  ASSERT_EQ(upload(url("/upload/put.txt"), "put.txt", content, DL_HTTP_PUT), 0) << err_.msg;
  EXPECT_EQ(read_file(server_->upload_dir() + "/put.txt"), content);
}

TEST_F(Nginx, PutBehindBasicAuth) {
  std::string content(40000, 'p');
  ASSERT_EQ(upload(url("/authupload/big.txt"), "big.txt", content, DL_HTTP_PUT, "", "user1",
                   "pass1"),
            0)
      << err_.msg;
  EXPECT_EQ(read_file(server_->upload_dir() + "/big.txt"), content);
}

TEST_F(Nginx, ChunkedBodyIsDechunked) {
  ASSERT_EQ(download(url("/chunked"), "c.txt"), 0) << err_.msg;
  std::string body = saved("c.txt");
  EXPECT_FALSE(body.empty());
  EXPECT_EQ(body.find("\r\n0\r\n"), std::string::npos);
  EXPECT_TRUE(log_->has(3, 3, "Chunked Encoding\n"));
}

TEST_F(Nginx, ChunkedFileMatchesTheOriginal) {
  ASSERT_EQ(download(url("/chunkedfile/1M.bin"), "c.bin"), 0) << err_.msg;
  EXPECT_EQ(saved("c.bin"), read_file(server_->doc_root() + "/files/1M.bin"));
}

TEST_F(Nginx, SeveralMebibytesChunkedMatchByteForByte) {
  uint32_t limit = 16u << 20;
  ASSERT_EQ(dl_set_option(DL_OPT_MAX_FILE_SIZE, &limit), 0);
  ASSERT_EQ(download(url("/chunkedfile/6M.bin"), "c6.bin"), 0) << err_.msg;
  EXPECT_TRUE(log_->has(3, 3, "Chunked Encoding\n"));
  EXPECT_TRUE(log_->has(3, 5, "recv : 6291456 bytes\n"));
  EXPECT_EQ(saved("c6.bin"), read_file(server_->doc_root() + "/files/6M.bin"));
}

TEST_F(Nginx, RequestCarriesHostUserAgentAcceptAndKeepAlive) {
  ASSERT_EQ(download(url("/headers"), "h.txt"), 0) << err_.msg;
  std::string head = saved("h.txt");
  EXPECT_NE(head.find("GET /headers HTTP/1.1\r\n"), std::string::npos) << head;
  EXPECT_NE(head.find("Host: 127.0.0.1:" + std::to_string(server_->port("http")) + "\r\n"),
            std::string::npos);
  EXPECT_NE(head.find("User-Agent: Vantrel\r\n"), std::string::npos);
  EXPECT_NE(head.find("Accept: */*\r\n"), std::string::npos);
  EXPECT_NE(head.find("Connection: Keep-Alive\r\n"), std::string::npos);
}

TEST_F(Nginx, StreamsThroughOpenAndRead) {
  EXPECT_EQ(stream(url("/files/1M.bin")), read_file(server_->doc_root() + "/files/1M.bin"));
}

TEST_F(Nginx, DownloadsOverIpv6WhenEnabled) {
  uint32_t on = 1;
  ASSERT_EQ(dl_set_option(DL_OPT_IPV6_ENABLE, &on), 0);
  std::string u = "http://[::1]:" + std::to_string(server_->port("http")) + "/files/hello.txt";
  ASSERT_EQ(download(u, "v6.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("v6.txt"), "hello world\n");
}

TEST_F(Nginx, Ipv6UrlRefusedWhenDisabled) {
  std::string u = "http://[::1]:" + std::to_string(server_->port("http")) + "/files/hello.txt";
  EXPECT_EQ(download(u, "v6.txt"), -1);
  EXPECT_FALSE(exists("v6.txt"));
}

}  // namespace
}  // namespace quarry_test

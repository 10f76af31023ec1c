// The FTP client against real servers on loopback: vsftpd on 127.0.0.1
// and [::1] (anonymous and a local user, passive port range, EPSV, STOR and
// APPE) and pure-ftpd as a second implementation. Every transfer is
// compared byte for byte with the server's file.
#include <gtest/gtest.h>

#include <string>

#include "quarry.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace quarry_test {
namespace {

constexpr size_t kTwoMiB = 2 * 1024 * 1024;

class FtpReal : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    set(DL_OPT_TIMEOUT, 10);
    set(DL_OPT_MAX_FILE_SIZE, 16 * 1024 * 1024);
    log_ = std::make_unique<LogCapture>();
  }
  void TearDown() override {
    log_.reset();
    dl_exit();
  }
  static void set(int id, uint32_t value) { dl_set_option(id, &value); }

  // dl_download of |url| into the scratch file |name|.
  int download(const std::string &url, const std::string &name, const char *user = nullptr,
               const char *password = nullptr) {
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    req.user = const_cast<char *>(user);
    req.password = const_cast<char *>(password);
    err_ = {};
    return dl_download(&req, dir_.file(name).c_str(), redirect_, &err_);
  }
  // dl_upload of |content| (a scratch file |name|) to |url|.
  int upload(const std::string &url, const std::string &name, const std::string &content,
             int mode, const char *remote = nullptr) {
    std::string path = dir_.write(name, content);
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    err_ = {};
    return dl_upload(&req, path.c_str(), remote, redirect_, &err_, nullptr, mode, 1);
  }
  std::string saved(const std::string &name) { return read_file(dir_.file(name)); }

  TempDir dir_;
  std::unique_ptr<LogCapture> log_;
  dl_error err_ = {};
  char redirect_[512] = "";
};

class Vsftpd : public FtpReal {
 protected:
  void SetUp() override {
    FtpReal::SetUp();
    server_ = &RealServer::shared("vsftpd");
    QUARRY_REQUIRE_SERVER(*server_);
  }
  // "ftp://[login@]127.0.0.1:port" + path, or [::1] for |v6|.
  std::string url(const std::string &path, const std::string &login = "", bool v6 = false) {
    std::string base = server_->url(v6 ? "ftp6" : "ftp", path);
    return login.empty() ? base : base.insert(6, login + "@");
  }
  std::string user_file(const std::string &name) { return server_->path("home/ftpuser/" + name); }
  RealServer *server_ = nullptr;
};

TEST_F(Vsftpd, AnonymousDownload) {
  ASSERT_EQ(download(url("/pub/readme.txt"), "readme.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("readme.txt"), read_file(server_->path("anon/pub/readme.txt")));
  EXPECT_TRUE(log_->has(2, 6, "FTP Login Info:uername=(null) passwd=******\n"));
}

TEST_F(Vsftpd, TwoMebibytesByteForByteThroughThePassiveRange) {
  write_file(server_->path("anon/pub/2M.bin"), random_bytes(kTwoMiB, 7));
  ASSERT_EQ(download(url("/pub/2M.bin"), "2M.bin"), 0) << err_.msg;
  EXPECT_TRUE(saved("2M.bin") == read_file(server_->path("anon/pub/2M.bin")));
  // The second connect is the data connection, to a port of the range.
  std::string text = log_->text();
  size_t at = text.rfind("Connecting 127.0.0.1:");
  ASSERT_NE(at, std::string::npos);
  int port = atoi(text.c_str() + at + strlen("Connecting 127.0.0.1:"));
  EXPECT_GE(port, server_->port("pasv_min"));
  EXPECT_LE(port, server_->port("pasv_max"));
}

TEST_F(Vsftpd, LocalUserDownloadWithLoginInTheUrl) {
  ASSERT_EQ(download(url("/mine.txt", "ftpuser:ftppass"), "mine.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("mine.txt"), read_file(user_file("mine.txt")));
  EXPECT_TRUE(log_->has(2, 6, "FTP Login Info:uername=ftpuser passwd=******\n"));
  EXPECT_FALSE(log_->mentions("ftppass"));
}

TEST_F(Vsftpd, LocalUserFromTheRequest) {
  ASSERT_EQ(download(url("/mine.txt"), "mine.txt", "ftpuser", "ftppass"), 0) << err_.msg;
  EXPECT_EQ(saved("mine.txt"), read_file(user_file("mine.txt")));
}

TEST_F(Vsftpd, WrongPasswordFallsBackToAnonymous) {
  // The fallback logs in as anonymous, who can read pub/.
  EXPECT_EQ(download(url("/pub/readme.txt", "ftpuser:wrong"), "r.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("r.txt"), "anon file\n");
}

TEST_F(Vsftpd, EpsvOverIpv6) {
  QUARRY_REQUIRE_IPV6(*server_);
  set(DL_OPT_IPV6_ENABLE, 1);
  ASSERT_EQ(download(url("/pub/readme.txt", "", true), "six.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("six.txt"), "anon file\n");
  EXPECT_TRUE(log_->mentions("Connecting ::1:"));
}

TEST_F(Vsftpd, EpsvOverIpv4WhenIpv6IsEnabled) {
  set(DL_OPT_IPV6_ENABLE, 1);
  ASSERT_EQ(download(url("/pub/readme.txt"), "e.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("e.txt"), "anon file\n");
}

TEST_F(Vsftpd, StoreThenAppendAsLocalUser) {
  std::string first = random_bytes(70000, 1);
  std::string second = random_bytes(5000, 2);
  ASSERT_EQ(upload(url("/", "ftpuser:ftppass"), "up.bin", first, 2), 0) << err_.msg;
  EXPECT_TRUE(read_file(user_file("up.bin")) == first);
  ASSERT_EQ(upload(url("/", "ftpuser:ftppass"), "up.bin", second, 1), 0) << err_.msg;
  EXPECT_TRUE(read_file(user_file("up.bin")) == first + second);
}

TEST_F(Vsftpd, AppendToAMissingFileStores) {
  ASSERT_EQ(upload(url("/new.cfg", "ftpuser:ftppass"), "fresh.cfg", "fresh\n", 1), 0) << err_.msg;
  EXPECT_EQ(read_file(user_file("fresh.cfg")), "fresh\n");
  EXPECT_TRUE(log_->has(5, 6, "File not found, use STOR\n"));
}

TEST_F(Vsftpd, AnonymousStoreAndAppendIntoIncoming) {
  ASSERT_EQ(upload(url("/incoming/"), "anon.txt", "one\n", 2), 0) << err_.msg;
  ASSERT_EQ(upload(url("/incoming/"), "anon.txt", "two\n", 1), 0) << err_.msg;
  EXPECT_EQ(read_file(server_->path("anon/incoming/anon.txt")), "one\ntwo\n");
}

TEST_F(Vsftpd, UploadOverIpv6WithARemoteName) {
  QUARRY_REQUIRE_IPV6(*server_);
  set(DL_OPT_IPV6_ENABLE, 1);
  ASSERT_EQ(upload(url("/", "ftpuser:ftppass", true), "local.bin", "over six\n", 2, "named.bin"), 0)
      << err_.msg;
  EXPECT_EQ(read_file(user_file("named.bin")), "over six\n");
}

TEST_F(Vsftpd, LimitMode1StoresInsteadOfAppending) {
  ASSERT_EQ(upload(url("/", "ftpuser:ftppass"), "lim.txt", std::string(600, 'a'), 2), 0);
  set(DL_OPT_MAX_FILE_SIZE, 1000);
  ASSERT_EQ(upload(url("/", "ftpuser:ftppass"), "lim.txt", std::string(600, 'b'), 1), 0)
      << err_.msg;
  EXPECT_EQ(read_file(user_file("lim.txt")), std::string(600, 'b'));
}

TEST_F(Vsftpd, DownloadOverTheLimitLeavesNoFile) {
  write_file(server_->path("anon/pub/limit.bin"), random_bytes(5000, 3));
  set(DL_OPT_MAX_FILE_SIZE, 1000);
  EXPECT_EQ(download(url("/pub/limit.bin"), "limit.bin"), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_STREQ(err_.msg, "exceed max size 1000");
  EXPECT_FALSE(file_exists(dir_.file("limit.bin")));
}

TEST_F(Vsftpd, MissingFileFailsWithTheServersWords) {
  EXPECT_EQ(download(url("/pub/none.txt"), "none.txt"), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_EQ(std::string(err_.msg).substr(0, 4), "550 ");
  EXPECT_FALSE(file_exists(dir_.file("none.txt")));
}

TEST_F(Vsftpd, StreamThroughTheFrontDoor) {
  std::string u = url("/pub/readme.txt");
  dl_request req = {};
  req.url = const_cast<char *>(u.c_str());
  dl_handle *h = nullptr;
  ASSERT_EQ(dl_open(&req, &h, nullptr, &err_), 0) << err_.msg;
  EXPECT_EQ(h->scheme, static_cast<uint32_t>(DL_SCHEME_FTP));
  std::string body;
  char buf[3];
  int n;
  while ((n = dl_read(h, buf, sizeof(buf), &err_)) > 0) body.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(n, 0);
  dl_close(h);
  EXPECT_EQ(body, "anon file\n");
}

class PureFtpd : public FtpReal {
 protected:
  void SetUp() override {
    FtpReal::SetUp();
    server_ = &RealServer::shared("pureftpd");
    QUARRY_REQUIRE_SERVER(*server_);
  }
  std::string url(const std::string &path) {
    return server_->url("ftp", path).insert(6, "vuser:purepass@");
  }
  RealServer *server_ = nullptr;
};

TEST_F(PureFtpd, DownloadAfterAMultiLineBanner) {
  ASSERT_EQ(download(url("/pure.txt"), "pure.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("pure.txt"), read_file(server_->path("home/pure.txt")));
}

TEST_F(PureFtpd, TwoMebibytesByteForByte) {
  write_file(server_->path("home/2M.bin"), random_bytes(kTwoMiB, 9));
  ASSERT_EQ(download(url("/2M.bin"), "2M.bin"), 0) << err_.msg;
  EXPECT_TRUE(saved("2M.bin") == read_file(server_->path("home/2M.bin")));
}

TEST_F(PureFtpd, StoreThenAppend) {
  std::string first = random_bytes(40000, 4);
  std::string second = random_bytes(3000, 5);
  ASSERT_EQ(upload(url("/"), "p.bin", first, 2), 0) << err_.msg;
  EXPECT_TRUE(read_file(server_->path("home/p.bin")) == first);
  ASSERT_EQ(upload(url("/"), "p.bin", second, 1), 0) << err_.msg;
  EXPECT_TRUE(read_file(server_->path("home/p.bin")) == first + second);
}

TEST_F(PureFtpd, EpsvWhenIpv6IsEnabled) {
  set(DL_OPT_IPV6_ENABLE, 1);
  ASSERT_EQ(download(url("/pure.txt"), "e.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("e.txt"), "pure file\n");
}

}  // namespace
}  // namespace quarry_test

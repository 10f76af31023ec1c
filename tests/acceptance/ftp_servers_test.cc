// The FTP client against real servers, black box: every case runs against
// vsftpd and pure-ftpd; anonymous logins and IPv6 against vsftpd, the one
// offering them. Files are compared byte for byte on the server's side.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/acceptance/ftp_peer.h"
#include "tests/acceptance/server_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace {

using acceptance::binary_content;
using acceptance::door_fetch;
using acceptance::fresh_name;
using acceptance::settled_content;
using quarry_test::LogCapture;
using quarry_test::RealServer;
using quarry_test::TempDir;

constexpr unsigned kFtp = DL_LOG_MODULE_FTP;
constexpr int kError = 3;
constexpr int kNotice = 5;
constexpr int kInfo = 6;
constexpr int kAppend = 1;
constexpr int kStore = 2;
constexpr int kLimitStore = 1;
constexpr int kLimitStop = 2;

struct FtpServer {
  const char *name;
  const char *user;
  const char *password;
  const char *home;  // where the user lands (chrooted), below the server's dir
  // A file anonymous users can read and its content; null without
  // anonymous logins.
  const char *anon_file;
  const char *anon_content;
  // Seconds a failed login takes to be answered, with some margin.
  uint16_t failed_login_s;
};

const FtpServer kServers[] = {
    {"vsftpd", "ftpuser", "ftppass", "home/ftpuser", "/pub/readme.txt", "anon file\n", 5},
    // pure-ftpd delays each failed login by a few seconds more than the last.
    {"pureftpd", "vuser", "purepass", "home", nullptr, nullptr, 12},
};

using acceptance::FtpSettings;
void apply(const FtpSettings &s) { acceptance::apply_ftp_settings(s); }

class FtpServers : public ::testing::TestWithParam<FtpServer> {
 protected:
  void SetUp() override {
    apply(settings_);
    memset(&err_, 0, sizeof(err_));
  }
  void TearDown() override { apply(FtpSettings()); }
  RealServer &server() { return RealServer::shared(GetParam().name); }
  int port() { return server().port("ftp"); }
  const char *user() { return GetParam().user; }
  const char *password() { return GetParam().password; }
  // The path on disk of |name| in the user's directory.
  std::string remote_path(const std::string &name) {
    return server().path(std::string(GetParam().home) + "/" + name);
  }
  // Puts |content| on the server under a fresh name, owned like the user's
  // directory so that the server may also overwrite it; returns the name.
  std::string place(const std::string &content) {
    std::string name = fresh_name("fsrc");
    std::string path = remote_path(name);
    FILE *f = fopen(path.c_str(), "wb");
    EXPECT_NE(nullptr, f) << "cannot place " << path;
    if (f == nullptr) return name;
    EXPECT_EQ(content.size(), fwrite(content.data(), 1, content.size(), f));
    fclose(f);
    struct stat home {};
    EXPECT_EQ(0, stat(server().path(GetParam().home).c_str(), &home));
    EXPECT_EQ(0, chown(path.c_str(), home.st_uid, home.st_gid));
    return name;
  }
  int send(const std::string &remote, const std::string &local, int mode, int limit) {
    return dl_ftp_send_file("127.0.0.1", port(), user(), password(), remote.c_str(), local.c_str(),
                            mode, limit, &err_);
  }
  FtpSettings settings_;
  dl_error err_;
  TempDir dir_;
};

TEST_P(FtpServers, DownloadIsByteForByte) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(300000, 11);
  std::string name = place(content);
  std::string local = dir_.file("got.bin");
  LogCapture cap;
  ASSERT_EQ(0, dl_ftp_recv_to_file("127.0.0.1", port(), user(), password(), ("/" + name).c_str(),
                                   local.c_str(), &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(quarry_test::read_file(local) == content) << "the saved file differs";
  EXPECT_TRUE(cap.has(kFtp, kInfo, "Sending size cmd to get file size\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kInfo, "File size:300000\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kNotice, "Open Success\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kNotice, "recv: 300000 bytes\n")) << cap.text();
}

TEST_P(FtpServers, ReadsReturnTheAskedLengthUntilTheAnnouncedSizeIsReached) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(25001, 12);
  std::string name = place(content);
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(0, dl_ftp_open(&conn, "127.0.0.1", port(), user(), password(), name.c_str(), &err_))
      << err_.code << " " << err_.msg;
  std::string got;
  char buf[1000];
  for (int i = 0; i < 25; ++i) {
    ASSERT_EQ(1000, dl_ftp_read(conn, buf, sizeof(buf), &err_)) << "read " << i;
    got.append(buf, sizeof(buf));
  }
  EXPECT_EQ(1, dl_ftp_read(conn, buf, sizeof(buf), &err_));
  got.append(buf, 1);
  EXPECT_EQ(0, dl_ftp_read(conn, buf, sizeof(buf), &err_));
  dl_ftp_close(conn);
  EXPECT_TRUE(got == content) << "the streamed file differs";
}

TEST_P(FtpServers, ExtendedPassiveModeDownloadsOverIpv4) {
  QUARRY_REQUIRE_SERVER(server());
  settings_.ipv6 = 1;
  apply(settings_);
  std::string content = binary_content(70000, 13);
  std::string name = place(content);
  std::string local = dir_.file("epsv.bin");
  LogCapture cap;
  ASSERT_EQ(0, dl_ftp_recv_to_file("127.0.0.1", port(), user(), password(), name.c_str(),
                                   local.c_str(), &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(quarry_test::read_file(local) == content) << "the saved file differs";
  EXPECT_FALSE(cap.mentions("Try use PASV")) << cap.text();
}

TEST_P(FtpServers, MissingFileFailsAtSizeWithTheServersReply) {
  QUARRY_REQUIRE_SERVER(server());
  LogCapture cap;
  dl_ftp_conn *conn = nullptr;
  EXPECT_EQ(
      -1, dl_ftp_open(&conn, "127.0.0.1", port(), user(), password(), "/no-such-file.bin", &err_));
  EXPECT_EQ(nullptr, conn);
  EXPECT_EQ(DL_ERR_FTP_REPLY, err_.code);
  EXPECT_EQ(0, strncmp(err_.msg, "550 ", 4)) << err_.msg;
  EXPECT_TRUE(cap.has(kFtp, kError, "Get file size error\n")) << cap.text();

  std::string local = dir_.file("none.bin");
  EXPECT_EQ(-1, dl_ftp_recv_to_file("127.0.0.1", port(), user(), password(), "no-such-file.bin",
                                    local.c_str(), &err_));
  EXPECT_FALSE(quarry_test::file_exists(local));
}

TEST_P(FtpServers, AppendToAMissingFileStoresThenAppendsThenStoreOverwrites) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(20000, 14);
  std::string local = dir_.write("up.bin", content);
  std::string name = fresh_name("fup");
  LogCapture cap;
  ASSERT_EQ(0, send(name, local, kAppend, kLimitStore)) << err_.code << " " << err_.msg;
  EXPECT_TRUE(cap.has(kFtp, kInfo, "File not found, use STOR\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kInfo, "FTP STOR\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kNotice, "Post open success\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kNotice, "send: 20000 bytes\n")) << cap.text();
  EXPECT_TRUE(settled_content(remote_path(name), content.size()) == content);

  cap.clear();
  ASSERT_EQ(0, send(name, local, kAppend, kLimitStore)) << err_.code << " " << err_.msg;
  EXPECT_TRUE(cap.has(kFtp, kInfo, "FTP APPE\n")) << cap.text();
  EXPECT_TRUE(settled_content(remote_path(name), 2 * content.size()) == content + content);

  std::string other = binary_content(777, 15);
  std::string local2 = dir_.write("up2.bin", other);
  ASSERT_EQ(0, send(name, local2, kStore, kLimitStore)) << err_.code << " " << err_.msg;
  EXPECT_TRUE(settled_content(remote_path(name), other.size()) == other);

  std::string back = dir_.file("back.bin");
  ASSERT_EQ(0, dl_ftp_recv_to_file("127.0.0.1", port(), user(), password(), name.c_str(),
                                   back.c_str(), &err_));
  EXPECT_TRUE(quarry_test::read_file(back) == other) << "the read-back differs";
}

TEST_P(FtpServers, AppendBeyondTheLimitStoresOrStopsByLimitMode) {
  QUARRY_REQUIRE_SERVER(server());
  settings_.max_file_size = 500;
  apply(settings_);
  std::string old = binary_content(300, 16);
  std::string name = place(old);
  std::string content = binary_content(300, 17);
  std::string local = dir_.write("up.bin", content);

  LogCapture cap;
  EXPECT_EQ(-1, send(name, local, kAppend, kLimitStop));
  EXPECT_EQ(DL_ERR_MAX_SIZE, err_.code);
  EXPECT_TRUE(cap.has(kFtp, kInfo, "exceed max file size,stop\n")) << cap.text();
  EXPECT_TRUE(quarry_test::read_file(remote_path(name)) == old) << "the server's file changed";

  cap.clear();
  ASSERT_EQ(0, send(name, local, kAppend, kLimitStore)) << err_.code << " " << err_.msg;
  EXPECT_TRUE(cap.has(kFtp, kInfo, "exceed max file size,stor\n")) << cap.text();
  EXPECT_TRUE(settled_content(remote_path(name), content.size()) == content);
}

TEST_P(FtpServers, StoreRefusedByTheServerCarriesItsReplyCode) {
  QUARRY_REQUIRE_SERVER(server());
  std::string local = dir_.write("up.bin", binary_content(100, 21));
  LogCapture cap;
  EXPECT_EQ(-1, send("no-such-dir/" + fresh_name("fmiss"), local, kStore, kLimitStore));
  EXPECT_EQ(553, err_.code);
  EXPECT_STREQ("Unknown Error", err_.msg);
  EXPECT_TRUE(cap.has(kFtp, kError, "Open data transfer conn err\n")) << cap.text();
}

TEST_P(FtpServers, WrongPasswordRetriesAnonymously) {
  QUARRY_REQUIRE_SERVER(server());
  settings_.timeout_s = GetParam().failed_login_s;
  apply(settings_);
  const char *file = GetParam().anon_file != nullptr ? GetParam().anon_file : "/pure.txt";
  std::string local = dir_.file("anon.txt");
  LogCapture cap;
  int rc = dl_ftp_recv_to_file("127.0.0.1", port(), user(), "wrong", file, local.c_str(), &err_);
  if (GetParam().anon_file != nullptr) {
    EXPECT_EQ(0, rc) << err_.code << " " << err_.msg;
    EXPECT_EQ(GetParam().anon_content, quarry_test::read_file(local));
    EXPECT_FALSE(cap.mentions("ftp login error")) << cap.text();
  } else {
    // No anonymous logins: the fallback's password is refused as well.
    EXPECT_EQ(-1, rc);
    EXPECT_EQ(DL_ERR_FTP_PASS, err_.code);
    EXPECT_TRUE(cap.has(kFtp, kError, "ftp login error\n")) << cap.text();
    EXPECT_FALSE(quarry_test::file_exists(local));
  }
}

TEST_P(FtpServers, FrontDoorUploadsAndDownloads) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(9000, 18);
  std::string local = dir_.write("door.bin", content);
  std::string name = fresh_name("fdoor");
  std::string url = "ftp://127.0.0.1:" + std::to_string(port()) + "/";
  dl_request req{};
  req.url = const_cast<char *>(url.c_str());
  req.user = const_cast<char *>(user());
  req.password = const_cast<char *>(password());
  ASSERT_EQ(
      0, dl_upload(&req, local.c_str(), name.c_str(), nullptr, &err_, nullptr, kStore, kLimitStore))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(settled_content(remote_path(name), content.size()) == content);

  std::string get_url = std::string("ftp://") + user() + ":" + password() +
                        "@127.0.0.1:" + std::to_string(port()) + "/" + name;
  EXPECT_TRUE(door_fetch(get_url, dir_.file("door_back.bin"), &err_) == content)
      << "the download differs: " << err_.code << " " << err_.msg;
}

INSTANTIATE_TEST_SUITE_P(Real, FtpServers, ::testing::ValuesIn(kServers), acceptance::ServerName());

// ---- what only vsftpd offers: anonymous logins and IPv6 ----

class FtpVsftpd : public ::testing::Test {
 protected:
  void SetUp() override {
    apply(FtpSettings());
    memset(&err_, 0, sizeof(err_));
  }
  void TearDown() override { apply(FtpSettings()); }
  dl_error err_;
  TempDir dir_;
};

TEST_F(FtpVsftpd, AnonymousDownloadAndUpload) {
  QUARRY_USE_SERVER(vsftpd, "vsftpd");
  std::string got = dir_.file("readme.txt");
  ASSERT_EQ(0, dl_ftp_recv_to_file("127.0.0.1", vsftpd.port("ftp"), nullptr, nullptr,
                                   "/pub/readme.txt", got.c_str(), &err_))
      << err_.code << " " << err_.msg;
  EXPECT_EQ("anon file\n", quarry_test::read_file(got));

  std::string content = binary_content(4000, 19);
  std::string local = dir_.write("anon_up.bin", content);
  std::string name = fresh_name("fanon");
  ASSERT_EQ(
      0, dl_ftp_send_file("127.0.0.1", vsftpd.port("ftp"), nullptr, nullptr,
                          ("/incoming/" + name).c_str(), local.c_str(), kStore, kLimitStore, &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(settled_content(vsftpd.path("anon/incoming/" + name), content.size()) == content);
}

TEST_F(FtpVsftpd, DownloadAndUploadOverIpv6) {
  QUARRY_USE_SERVER(vsftpd, "vsftpd");
  QUARRY_REQUIRE_IPV6(vsftpd);
  FtpSettings v6;
  v6.ipv6 = 1;
  apply(v6);
  std::string content = binary_content(50000, 20);
  std::string local = dir_.write("v6.bin", content);
  std::string name = fresh_name("fv6");
  LogCapture cap;
  ASSERT_EQ(0, dl_ftp_send_file("::1", vsftpd.port("ftp6"), "ftpuser", "ftppass", name.c_str(),
                                local.c_str(), kStore, kLimitStore, &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(settled_content(vsftpd.path("home/ftpuser/" + name), content.size()) == content);

  std::string back = dir_.file("v6_back.bin");
  ASSERT_EQ(0, dl_ftp_recv_to_file("::1", vsftpd.port("ftp6"), "ftpuser", "ftppass", name.c_str(),
                                   back.c_str(), &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(quarry_test::read_file(back) == content) << "the download differs";
  EXPECT_FALSE(cap.mentions("Try use PASV")) << cap.text();
}

}  // namespace

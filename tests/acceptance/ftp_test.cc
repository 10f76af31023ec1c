// The FTP client, black box: scripted loopback servers for every reply
// the client must handle (real servers: ftp_servers_test.cc).
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/acceptance/ftp_peer.h"
#include "tests/support/log_capture.h"

namespace {

using acceptance::FtpPeer;
using quarry_test::LogCapture;
using quarry_test::TempDir;

constexpr unsigned kFtp = DL_LOG_MODULE_FTP;
constexpr int kError = 3;
constexpr int kWarning = 4;
constexpr int kNotice = 5;
constexpr int kInfo = 6;

class Ftp : public ::testing::Test {
 protected:
  void SetUp() override {
    acceptance::apply_ftp_settings(settings_);
    memset(&err_, 0, sizeof(err_));
  }
  void set_ipv6(int on) {
    settings_.ipv6 = static_cast<uint16_t>(on);
    acceptance::apply_ftp_settings(settings_);
  }
  void set_max(uint32_t max) {
    settings_.max_file_size = max;
    acceptance::apply_ftp_settings(settings_);
  }
  // Opens a download of /file.bin from |peer|, reads it whole and closes.
  int download(FtpPeer &peer, const char *user, const char *pass, std::string *got) {
    dl_ftp_conn *conn = nullptr;
    int rc = dl_ftp_open(&conn, "127.0.0.1", peer.port(), user, pass, "/file.bin", &err_);
    if (rc == 0) {
      char buf[100];
      int n;
      while ((n = dl_ftp_read(conn, buf, sizeof(buf), &err_)) > 0) got->append(buf, n);
      dl_ftp_close(conn);
    } else {
      EXPECT_EQ(nullptr, conn);
    }
    peer.finish();
    return rc;
  }
  acceptance::FtpSettings settings_;
  dl_error err_;
};

std::vector<std::string> v(std::initializer_list<const char *> l) {
  return std::vector<std::string>(l.begin(), l.end());
}

TEST_F(Ftp, DownloadRunsTheCommandsInOrderAndReadsTheAnnouncedSize) {
  FtpPeer peer;
  peer.retr_data = std::string(250, 'x');
  peer.start();
  LogCapture cap;
  std::string got;
  ASSERT_EQ(0, download(peer, "bob", "secret", &got));
  EXPECT_EQ(peer.retr_data, got);
  EXPECT_EQ(v({"USER bob", "PASS secret", "TYPE I", "PASV", "SIZE file.bin", "RETR file.bin"}),
            peer.commands());
  EXPECT_TRUE(cap.has(kFtp, kInfo, "Sending size cmd to get file size\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kInfo, "File size:250\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kNotice, "Open Success\n")) << cap.text();
}

TEST_F(Ftp, ReadReturnsExactlyTheLengthThenTheRestThenZero) {
  FtpPeer peer;
  peer.retr_data = "0123456789";
  peer.start();
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(0, dl_ftp_open(&conn, "127.0.0.1", peer.port(), nullptr, nullptr, "file.bin", &err_));
  char buf[8];
  EXPECT_EQ(4, dl_ftp_read(conn, buf, 4, &err_));
  EXPECT_EQ(0, memcmp(buf, "0123", 4));
  EXPECT_EQ(6, dl_ftp_read(conn, buf, 8, &err_));
  EXPECT_EQ(0, memcmp(buf, "456789", 6));
  EXPECT_EQ(0, dl_ftp_read(conn, buf, 8, &err_));
  dl_ftp_close(conn);
  peer.finish();
  // A null user logs in as anonymous; no password gives a bare PASS.
  EXPECT_EQ(v({"USER anonymous", "PASS", "TYPE I", "PASV", "SIZE file.bin", "RETR file.bin"}),
            peer.commands());
}

TEST_F(Ftp, MultiLineGreetingCountsOnlyItsFinalLine) {
  FtpPeer peer;
  peer.greeting = "220-Welcome\r\n continuation text\r\n220-more\r\n220 ready now\r\n";
  peer.retr_data = "abc";
  peer.start();
  std::string got;
  EXPECT_EQ(0, download(peer, "u", "p", &got));
  EXPECT_EQ("abc", got);
}

TEST_F(Ftp, UserRejectedFallsBackToAnonymousWithEmptyPassword) {
  FtpPeer peer;
  peer.queue("USER", "530 not you\r\n");
  peer.retr_data = "abc";
  peer.start();
  LogCapture cap;
  std::string got;
  ASSERT_EQ(0, download(peer, "bob", "pw", &got));
  EXPECT_EQ(v({"USER bob", "USER anonymous", "PASS ", "TYPE I", "PASV", "SIZE file.bin",
               "RETR file.bin"}),
            peer.commands());
  EXPECT_FALSE(cap.mentions("login failed,Try anonymous!")) << cap.text();
}

TEST_F(Ftp, BothLoginsRejectedFailWithUserCode) {
  FtpPeer peer;
  peer.queue("USER", "530 no\r\n");
  peer.queue("USER", "530 no again\r\n");
  peer.start();
  LogCapture cap;
  std::string got;
  EXPECT_EQ(-1, download(peer, "bob", "pw", &got));
  EXPECT_EQ(DL_ERR_FTP_USER, err_.code);
  EXPECT_TRUE(cap.has(kFtp, kError, "ftp login error\n")) << cap.text();
}

TEST_F(Ftp, EmptyUserWithRejectedPasswordFailsAtOnce) {
  FtpPeer peer;
  peer.queue("PASS", "530 bad password\r\n");
  peer.start();
  LogCapture cap;
  std::string got;
  EXPECT_EQ(-1, download(peer, "", "pw", &got));
  EXPECT_EQ(DL_ERR_FTP_PASS, err_.code);
  EXPECT_EQ(v({"USER anonymous", "PASS pw"}), peer.commands());
  EXPECT_TRUE(cap.has(kFtp, kError, "ftp login error\n")) << cap.text();
}

TEST_F(Ftp, TypeRejectedFailsWithReplyCode) {
  FtpPeer peer;
  peer.queue("TYPE", "504 no binary\r\n");
  peer.start();
  std::string got;
  EXPECT_EQ(-1, download(peer, "", "", &got));
  EXPECT_EQ(DL_ERR_FTP_REPLY, err_.code);
}

TEST_F(Ftp, GreetingOtherThan220IsResponseError) {
  FtpPeer peer;
  peer.greeting = "421 too many users\r\n";
  peer.start();
  LogCapture cap;
  std::string got;
  EXPECT_EQ(-1, download(peer, "u", "p", &got));
  EXPECT_EQ(DL_ERR_FTP_REPLY, err_.code);
  EXPECT_STREQ("421 too many users", err_.msg);
  EXPECT_TRUE(cap.has(kFtp, kError, "Response error\n")) << cap.text();
}

TEST_F(Ftp, RefusedConnectionIsConnectError) {
  uint16_t port;
  {
    FtpPeer closed;  // a port that was free a moment ago
    port = closed.port();
  }
  LogCapture cap;
  dl_ftp_conn *conn = reinterpret_cast<dl_ftp_conn *>(&err_);
  EXPECT_EQ(-1, dl_ftp_open(&conn, "127.0.0.1", port, "u", "p", "f", &err_));
  EXPECT_EQ(nullptr, conn);
  EXPECT_LT(err_.code, 0);
  EXPECT_TRUE(cap.has(kFtp, kError, "Connect Error\n")) << cap.text();
}

TEST_F(Ftp, PassiveReplyWithoutParenthesesIsFormatError) {
  FtpPeer peer;
  peer.queue("PASV", "227 Entering Passive Mode 127,0,0,1,4,1\r\n");
  peer.start();
  LogCapture cap;
  std::string got;
  EXPECT_EQ(-1, download(peer, "u", "p", &got));
  EXPECT_EQ(DL_ERR_FTP_REPLY, err_.code);
  EXPECT_STREQ("227 Entering Passive Mode 127,0,0,1,4,1", err_.msg);
  EXPECT_TRUE(cap.has(kFtp, kError, "Passive mode string format error\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kError, "Create data connection failed\n")) << cap.text();
}

TEST_F(Ftp, PassiveAddressComesFromTheReplyNotTheControlConnection) {
  FtpPeer peer("127.0.0.2");
  peer.retr_data = "elsewhere";
  peer.start();
  std::string got;
  ASSERT_EQ(0, download(peer, "u", "p", &got));
  EXPECT_EQ("elsewhere", got);
}

TEST_F(Ftp, ExtendedPassiveIsUsedWhenIpv6IsEnabled) {
  set_ipv6(1);
  FtpPeer peer;
  peer.retr_data = "ext";
  peer.start();
  std::string got;
  ASSERT_EQ(0, download(peer, "u", "p", &got));
  EXPECT_EQ("ext", got);
  EXPECT_EQ("EPSV", peer.commands().at(3));
}

TEST_F(Ftp, Epsv522FallsBackToPasv) {
  set_ipv6(1);
  FtpPeer peer;
  peer.queue("EPSV", "522 Network protocol not supported, use (1)\r\n");
  peer.retr_data = "v4";
  peer.start();
  LogCapture cap;
  std::string got;
  ASSERT_EQ(0, download(peer, "u", "p", &got));
  EXPECT_EQ("v4", got);
  EXPECT_EQ("EPSV", peer.commands().at(3));
  EXPECT_EQ("PASV", peer.commands().at(4));
  EXPECT_TRUE(cap.has(kFtp, kWarning,
                      "DL_ERRFTP:[522 Network protocol not supported, use (1)], Try use PASV\n"))
      << cap.text();
}

TEST_F(Ftp, EpsvRefusedWithout522Fails) {
  set_ipv6(1);
  FtpPeer peer;
  peer.queue("EPSV", "500 what\r\n");
  peer.start();
  std::string got;
  EXPECT_EQ(-1, download(peer, "u", "p", &got));
  EXPECT_EQ(DL_ERR_FTP_REPLY, err_.code);
  EXPECT_EQ(4u, peer.commands().size());
}

TEST_F(Ftp, SizeRefusedIsReported) {
  FtpPeer peer;
  peer.queue("SIZE", "550 no such file\r\n");
  peer.start();
  LogCapture cap;
  std::string got;
  EXPECT_EQ(-1, download(peer, "u", "p", &got));
  EXPECT_EQ(DL_ERR_FTP_REPLY, err_.code);
  EXPECT_STREQ("550 no such file", err_.msg);
  EXPECT_TRUE(cap.has(kFtp, kError, "Get file size error\n")) << cap.text();
}

TEST_F(Ftp, RetrAnsweredAbove150IsWrongCode) {
  FtpPeer peer;
  peer.queue("RETR", "550 permission denied\r\n");
  peer.retr_data = "abc";
  peer.start();
  LogCapture cap;
  std::string got;
  EXPECT_EQ(-1, download(peer, "u", "p", &got));
  EXPECT_EQ(DL_ERR_FTP_REPLY, err_.code);
  EXPECT_STREQ("550 permission denied", err_.msg);
  EXPECT_TRUE(cap.has(kFtp, kError, "Server response wrong code : 550\n")) << cap.text();
}

TEST_F(Ftp, OpenRejectsBadParameters) {
  LogCapture cap;
  dl_ftp_conn *conn = nullptr;
  EXPECT_EQ(-1, dl_ftp_open(&conn, "127.0.0.1", 21, "u", "p", nullptr, &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  memset(&err_, 0, sizeof(err_));
  EXPECT_EQ(-1, dl_ftp_open(&conn, "127.0.0.1", 65536, "u", "p", "f", &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  std::string long_host(512, 'h');
  memset(&err_, 0, sizeof(err_));
  EXPECT_EQ(-1, dl_ftp_open(&conn, long_host.c_str(), 21, "u", "p", "f", &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  EXPECT_EQ(-1, dl_ftp_open(&conn, "127.0.0.1", 21, "u", "p", "f", nullptr));
  EXPECT_EQ(4, cap.count(kFtp, kError, "Invalid Parameter\n")) << cap.text();
}

TEST_F(Ftp, ReadAndCloseRejectNullArguments) {
  LogCapture cap;
  char buf[4];
  EXPECT_EQ(-1, dl_ftp_read(nullptr, buf, 4, &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  EXPECT_TRUE(cap.has(kFtp, kError, "ftp read with invalid parameter\n")) << cap.text();
  dl_ftp_close(nullptr);
  EXPECT_TRUE(cap.has(kFtp, kError, "ftp close with invalid parameter\n")) << cap.text();
}

TEST_F(Ftp, SendAllOfNothingReturnsZero) { EXPECT_EQ(0, ftp_send_all(-1, "x", 0)); }

TEST_F(Ftp, RecvToFileWithoutSlashDropsFirstCharacter) {
  TempDir dir;
  char old[4096];
  ASSERT_NE(nullptr, getcwd(old, sizeof(old)));
  ASSERT_EQ(0, chdir(dir.path().c_str()));
  FtpPeer peer;
  peer.retr_data = std::string(1300, 'q');
  peer.start();
  LogCapture cap;
  int rc = dl_ftp_recv_to_file("127.0.0.1", peer.port(), "u", "p", "file.bin", nullptr, &err_);
  peer.finish();
  std::string content = quarry_test::read_file(dir.file("ile.bin"));
  ASSERT_EQ(0, chdir(old));
  EXPECT_EQ(0, rc);
  EXPECT_EQ(peer.retr_data, content);
  EXPECT_TRUE(cap.has(kFtp, kNotice, "recv: 1300 bytes\n")) << cap.text();
}

TEST_F(Ftp, RecvToFileNamesTheFileAfterTheLastSlash) {
  TempDir dir;
  FtpPeer peer;
  peer.retr_data = "body";
  peer.start();
  std::string local = dir.file("out.bin");
  EXPECT_EQ(0, dl_ftp_recv_to_file("127.0.0.1", peer.port(), "u", "p", "/dir/f.bin",
                                   local.c_str(), &err_));
  peer.finish();
  EXPECT_EQ("body", quarry_test::read_file(local));
  EXPECT_EQ("SIZE dir/f.bin", peer.commands().at(4));
}

TEST_F(Ftp, RecvToFileOverTheLimitRemovesThePartialFile) {
  set_max(1000);
  TempDir dir;
  FtpPeer peer;
  peer.retr_data = std::string(3000, 'z');
  peer.start();
  LogCapture cap;
  std::string local = dir.file("big.bin");
  EXPECT_EQ(-1, dl_ftp_recv_to_file("127.0.0.1", peer.port(), "u", "p", "/big.bin",
                                    local.c_str(), &err_));
  peer.finish();
  EXPECT_EQ(DL_ERR_MAX_SIZE, err_.code);
  EXPECT_STREQ("exceed max size 1000", err_.msg);
  EXPECT_FALSE(quarry_test::file_exists(local));
  EXPECT_TRUE(cap.has(kFtp, kError, "exceed max size\n")) << cap.text();
}

TEST_F(Ftp, RecvToFileIntoAMissingDirectoryFails) {
  TempDir dir;
  FtpPeer peer;
  peer.retr_data = "body";
  peer.start();
  LogCapture cap;
  std::string local = dir.file("no/such/dir/f");
  EXPECT_EQ(-1, dl_ftp_recv_to_file("127.0.0.1", peer.port(), "u", "p", "/f", local.c_str(),
                                    &err_));
  peer.finish();
  EXPECT_EQ(0, err_.code);
  EXPECT_TRUE(cap.has(kFtp, kError, "Open file for recv fail!\n")) << cap.text();
}

}  // namespace

namespace {

// A data connection closed before the announced size arrived must not keep
// the caller's thread forever: the read ends with a failure. Run in a child
// so that a hang fails the test instead of stalling the suite.
TEST_F(Ftp, DataClosedBeforeTheAnnouncedSizeEndsTheRead) {
  FtpPeer peer;
  peer.queue("SIZE", "213 100\r\n");
  peer.retr_data = "only ten b";
  peer.start();
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(0, dl_ftp_open(&conn, "127.0.0.1", peer.port(), "u", "p", "/f", &err_));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(5);
    char buf[100];
    dl_error e{};
    int n = dl_ftp_read(conn, buf, sizeof(buf), &e);
    _exit(n == -1 && e.code == DL_ERR_READ ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  dl_ftp_close(conn);
  peer.finish();
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace

namespace {

// A reply line that does not fit into the reply buffer ends the read with
// -1 and the buffer's length in the log line.
TEST_F(Ftp, PassiveReplyLongerThanItsBufferFailsTheOpen) {
  FtpPeer peer;
  peer.queue("PASV", "227 Entering Passive Mode " + std::string(600, 'x') + "\r\n");
  peer.start();
  LogCapture cap;
  std::string got;
  EXPECT_EQ(-1, download(peer, "u", "p", &got));
  EXPECT_EQ(-1, err_.code);
  EXPECT_STREQ("Unknown Error", err_.msg);
  EXPECT_TRUE(cap.has(kFtp, kError, "Buffer not enough! buffer len 512\n")) << cap.text();
  EXPECT_TRUE(cap.has(kFtp, kError, "Create data connection failed\n")) << cap.text();
}

class FtpSmallReplyBuffer : public Ftp {
 protected:
  void SetUp() override {
    Ftp::SetUp();
    peer_.retr_data = "abc";
    peer_.start();
    ASSERT_EQ(0, dl_ftp_open(&conn_, "127.0.0.1", peer_.port(), "u", "p", "f", &err_));
    memset(area_, '#', sizeof(area_));
  }
  void TearDown() override {
    dl_ftp_close(conn_);
    peer_.finish();
    // Nothing was written past the longest length a test gives.
    const size_t rest = sizeof(area_) - kLen;
    EXPECT_EQ(std::string(rest, '#'), std::string(area_ + kLen, rest));
  }
  static constexpr int kLen = 16;
  FtpPeer peer_;
  dl_ftp_conn *conn_ = nullptr;
  char area_[64];
};

// The scripted server answers NOOP with "500 unknown" and its "\r\n", 13
// bytes; the line end still counts when the length is checked, so a buffer
// of 14 is too short as well.
TEST_F(FtpSmallReplyBuffer, CommandReplyLongerThanTheBufferIsRefused) {
  for (int len : {8, 14}) {
    LogCapture cap;
    EXPECT_EQ(-1, ftp_command(conn_, "NOOP", nullptr, area_, len, 0, DL_ERR_FTP_REPLY));
    std::string line = "Buffer not enough! buffer len " + std::to_string(len) + "\n";
    EXPECT_TRUE(cap.has(kFtp, kError, line)) << cap.text();
  }
}

TEST_F(FtpSmallReplyBuffer, DataConnectionWithAShortReplyBufferFails) {
  LogCapture cap;
  EXPECT_EQ(-1, dl_ftp_create_data_conn(conn_, area_, kLen, 1));
  EXPECT_TRUE(cap.has(kFtp, kError, "Buffer not enough! buffer len 16\n")) << cap.text();
  EXPECT_EQ(v({"USER u", "PASS p", "TYPE I", "PASV", "SIZE f", "RETR f", "PASV"}),
            peer_.commands());
}

TEST_F(FtpSmallReplyBuffer, ReplyThatFitsIsReadWhole) {
  LogCapture cap;
  EXPECT_EQ(500, ftp_command(conn_, "NOOP", nullptr, area_, 15, 0, DL_ERR_FTP_REPLY));
  EXPECT_STREQ("500 unknown", area_);
  EXPECT_FALSE(cap.mentions("Buffer not enough!")) << cap.text();
}

}  // namespace

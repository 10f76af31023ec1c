// The reply reader and the command sender on a socket pair: whole lines,
// nothing consumed past a line's end, the final-line rule, the bounds.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "ftp/ftp_conn.h"
#include "tests/support/log_capture.h"

namespace {

class FtpReply : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    uint32_t one = 1;
    dl_set_option(DL_OPT_TIMEOUT, &one);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
    conn_.magic = DL_FTP_MAGIC;
    conn_.control = fds_[0];
    capture_ = std::make_unique<quarry_test::LogCapture>();
  }
  void TearDown() override {
    capture_.reset();
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
    dl_exit();
  }
  void server_says(const std::string &text) {
    ASSERT_EQ(write(fds_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void server_closes() {
    close(fds_[1]);
    fds_[1] = -1;
  }
  std::string rest() {
    char buf[4096];
    ssize_t n = recv(fds_[0], buf, sizeof(buf), MSG_DONTWAIT);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
  }
  std::string sent() {
    char buf[4096];
    ssize_t n = recv(fds_[1], buf, sizeof(buf), MSG_DONTWAIT);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
  }

  int fds_[2] = {-1, -1};
  dl_ftp_conn conn_ = {};
  char reply_[512] = {};
  std::unique_ptr<quarry_test::LogCapture> capture_;
};

TEST_F(FtpReply, ReadsOneLineWithoutItsEndAndLeavesTheNext) {
  server_says("200 ok\r\n331 next\r\n");
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 0, 0), 200);
  EXPECT_STREQ(reply_, "200 ok");
  EXPECT_EQ(rest(), "331 next\r\n");
}

TEST_F(FtpReply, MultiLineReplyYieldsItsFinalLine) {
  server_says("220-Welcome\r\n to the server\r\n220-still\r\n220 ready\r\nNEXT");
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 220, -15), 220);
  EXPECT_STREQ(reply_, "220 ready");
  EXPECT_EQ(rest(), "NEXT");
}

TEST_F(FtpReply, UnexpectedCodeGivesTheFailCodeAndKeepsTheText) {
  server_says("530 not logged in\r\n");
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 230, -19), -19);
  EXPECT_STREQ(reply_, "530 not logged in");
}

TEST_F(FtpReply, LineArrivingInPiecesIsJoined) {
  server_says("21");
  std::thread later([this] {
    usleep(100000);
    server_says("3 12");
    usleep(50000);
    server_says("34\r");
    usleep(50000);
    server_says("\nrest");
  });
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 213, -15), 213);
  later.join();
  EXPECT_STREQ(reply_, "213 1234");
  EXPECT_EQ(rest(), "rest");
}

TEST_F(FtpReply, LineLongerThanTheFirstBufferGrows) {
  std::string line = "213 " + std::string(400, '7');
  server_says(line + "\r\n");
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 0, 0), 213);
  EXPECT_EQ(std::string(reply_), line);
}

TEST_F(FtpReply, LineThatDoesNotFitTheReplyFails) {
  server_says("213 " + std::string(600, '7') + "\r\n");
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 0, 0), -1);
  EXPECT_TRUE(capture_->has(5, 3, "Buffer not enough! buffer len 512\n"));
}

TEST_F(FtpReply, ServerClosedBeforeAFinalReplyIsAReadError) {
  server_says("220-only the start\r\n");
  server_closes();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 220, -15), DL_ERR_READ);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

TEST_F(FtpReply, ServerClosedInsideALineKeepsWhatCame) {
  server_says("421 going");
  server_closes();
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 0, 0), DL_ERR_READ);
  EXPECT_STREQ(reply_, "421 going");
}

TEST_F(FtpReply, SilenceEndsWithTheWaitsLine) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 0, 0), DL_ERR_READ);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_TRUE(capture_->mentions("dl_select error! errno "));
}

TEST_F(FtpReply, ThreeDigitsWithoutBlankAreNotFinal) {
  server_says("200\r\n2000 no\r\n250 yes\r\n");
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 0, 0), 250);
}

TEST_F(FtpReply, CommandWithArgumentEmptyArgumentAndNone) {
  server_says("200 a\r\n200 b\r\n200 c\r\n");
  EXPECT_EQ(ftp_command(&conn_, "TYPE", "I", reply_, sizeof(reply_), 200, -15), 200);
  EXPECT_EQ(ftp_command(&conn_, "PASS", "", reply_, sizeof(reply_), 200, -15), 200);
  EXPECT_EQ(ftp_command(&conn_, "PASV", nullptr, reply_, sizeof(reply_), 200, -15), 200);
  EXPECT_EQ(sent(), "TYPE I\r\nPASS \r\nPASV\r\n");
}

TEST_F(FtpReply, FailedSendIsLoggedWithoutThePassword) {
  close(fds_[1]);
  fds_[1] = -1;
  EXPECT_EQ(ftp_command(&conn_, "PASS", "hunter2", reply_, sizeof(reply_), 230, -19),
            DL_ERR_SEND);
  EXPECT_TRUE(capture_->has(5, 3, "Error send command PASS ******\r\n\n"));
  EXPECT_FALSE(capture_->mentions("hunter2"));
  EXPECT_EQ(ftp_command(&conn_, "SIZE", "x", reply_, sizeof(reply_), 213, -15), DL_ERR_SEND);
  EXPECT_TRUE(capture_->has(5, 3, "Error send command SIZE x\r\n\n"));
}

TEST_F(FtpReply, SendAllOfNothingIsDoneAtOnce) {
  EXPECT_EQ(ftp_send_all(-1, "x", 0), 0);
  EXPECT_EQ(ftp_send_all(-1, "x", -3), 0);
  EXPECT_EQ(ftp_send_all(-1, "x", 1), DL_ERR_SEND);
}

TEST_F(FtpReply, LoginSendsUserPassAndType) {
  server_says("331 pw\r\n230 in\r\n200 binary\r\n");
  EXPECT_EQ(ftp_login(&conn_, nullptr, nullptr, reply_), 0);
  EXPECT_EQ(sent(), "USER anonymous\r\nPASS\r\nTYPE I\r\n");
}

TEST_F(FtpReply, LoginCodes) {
  server_says("500 what\r\n");
  EXPECT_EQ(ftp_login(&conn_, "u", "p", reply_), DL_ERR_FTP_USER);
  server_says("331 pw\r\n530 wrong\r\n");
  EXPECT_EQ(ftp_login(&conn_, "u", "p", reply_), DL_ERR_FTP_PASS);
  server_says("230 in\r\n504 no such type\r\n");
  EXPECT_EQ(ftp_login(&conn_, "u", "p", reply_), DL_ERR_FTP_REPLY);
  EXPECT_STREQ(reply_, "504 no such type");
}

}  // namespace

namespace {

TEST_F(FtpReply, WrongMagicIsRefusedByReadSendAndClose) {
  dl_ftp_conn dead = conn_;
  dead.magic = 0;
  dead.data = fds_[0];
  char buf[4];
  dl_error err = {};
  EXPECT_EQ(dl_ftp_read(&dead, buf, sizeof(buf), &err), -1);
  EXPECT_EQ(err.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_ftp_send(&dead, "/etc/hostname", &err), -1);
  EXPECT_EQ(capture_->count(5, 3, "ftp read with invalid parameter\n"), 2);
  dl_ftp_close(&dead);
  EXPECT_TRUE(capture_->has(5, 3, "ftp close with invalid parameter\n"));
  // Nothing was closed: the socket still works.
  server_says("200 still here\r\n");
  EXPECT_EQ(ftp_read_reply(&conn_, reply_, sizeof(reply_), 0, 0), 200);
}

TEST_F(FtpReply, ReadWithoutDataConnectionIsRefused) {
  char buf[4];
  dl_error err = {};
  EXPECT_EQ(dl_ftp_read(&conn_, buf, sizeof(buf), &err), -1);
  EXPECT_EQ(err.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_ftp_read(&conn_, buf, sizeof(buf), nullptr), -1);
  EXPECT_EQ(capture_->count(5, 3, "ftp read with invalid parameter\n"), 2);
}

}  // namespace

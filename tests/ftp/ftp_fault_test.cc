// Servers that misbehave: each failure ends with its code inside the
// time-out (1 s here), leaves no partial file and no descriptor open.
#include <gtest/gtest.h>

#include <string>

#include "tests/ftp/ftp_peer.h"
#include "tests/peer/listener.h"

namespace {

using namespace quarry_test;

// Generous against a loaded machine, far below a hang.
constexpr double kWithinTimeout = 3.0;

class FtpFault : public FtpPeerTest {
 protected:
  int download() {
    return dl_ftp_recv_to_file("127.0.0.1", control_.port(), nullptr, nullptr, "/f.bin",
                               local().c_str(), &err_);
  }
  std::string local() const { return dir_.file("f.bin"); }
  void expect_clean_failure(std::chrono::steady_clock::time_point start) {
    EXPECT_LT(seconds_since(start), kWithinTimeout);
    EXPECT_FALSE(file_exists(local()));
    expect_no_fd_left();
  }
  // The peers run in this process: their own sockets are gone once they
  // have seen the library close its side.
  void expect_no_fd_left() {
    if (control_.connections() > 0) {
      EXPECT_TRUE(control_.wait(3000));
    }
    if (data_.connections() > 0) {
      EXPECT_TRUE(data_.wait(3000));
    }
    EXPECT_EQ(open_fds(), fds_before_);
  }

  TcpPeer control_;
  TcpPeer data_;
};

TEST_F(FtpFault, ControlClosedBeforeAFinalReplyFailsInsteadOfLooping) {
  control_.add({send_bytes("220-first line of many\r\n220-and then\r\n"), close_conn()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_TRUE(logged(3, "Response error\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, ControlClosedInTheMiddleOfALine) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + Script{read_until("SIZE f.bin\r\n"),
                                                        send_bytes("213 12"), close_conn()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(logged(3, "Get file size error\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, ReplyReaderFailsOnceTheServerHasClosed) {
  control_.add({send_bytes("220 hi\r\n"), read_until("USER anonymous\r\n"),
                send_bytes("331-more to come\r\n"), close_conn()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(logged(3, "ftp login error\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, SilentServerEndsAtTheTimeout) {
  control_.add({read_to_end()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_GE(seconds_since(start), 0.9);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_TRUE(capture_->mentions("dl_select error! errno "));
  EXPECT_TRUE(logged(3, "Response error\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, ServerStopsAnsweringDuringTheDownload) {
  data_.add({send_bytes("part"), read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE f.bin", "213 100") +
               reply_to("RETR f.bin", "150 go") + Script{read_to_end()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(capture_->mentions("dl_select error! errno "));
  expect_clean_failure(start);
}

TEST_F(FtpFault, ControlResetFails) {
  control_.add({send_bytes("220 hi\r\n"), read_until("USER anonymous\r\n"), reset_conn()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_LT(err_.code, 0);
  EXPECT_TRUE(logged(3, "ftp login error\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, ControlResetDuringTheUploadReply) {
  std::string file = dir_.write("up.bin", std::string(4096, 'u'));
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port(), "PASS ") + reply_to("SIZE up.bin", "550 no") +
               reply_to("STOR up.bin", "150 ok") + Script{read_bytes(1), reset_conn()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_ftp_send_file("127.0.0.1", control_.port(), "", "", nullptr, file.c_str(), 2, 1,
                             &err_),
            -1);
  EXPECT_EQ(err_.code, DL_ERR_SEND);
  EXPECT_LT(seconds_since(start), kWithinTimeout);
  expect_no_fd_left();
}

TEST_F(FtpFault, ControlClosedBeforeTheUploadsSizeReply) {
  std::string file = dir_.write("up.bin", "body");
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port(), "PASS ") +
               Script{read_until("SIZE up.bin\r\n"), close_conn()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_ftp_send_file("127.0.0.1", control_.port(), "", "", nullptr, file.c_str(), 2, 1,
                             &err_),
            -1);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(logged(3, "Get file size error\n"));
  EXPECT_FALSE(logged(6, "FTP STOR\n"));
  EXPECT_LT(seconds_since(start), kWithinTimeout);
  expect_no_fd_left();
}

TEST_F(FtpFault, DataPortRefusingFailsTheOpen) {
  uint16_t refused = closed_port();
  control_.add(anonymous_session(refused) + Script{read_to_end()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  EXPECT_TRUE(logged(3, "Create data connection failed\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, DataConnectionNeverOpenedEndsAtTheTimeout) {
  Listener never(false, 0, 1);
  ASSERT_TRUE(never.fill_backlog());
  fds_before_ = open_fds();
  control_.add(anonymous_session(never.port()) + Script{read_to_end()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  EXPECT_TRUE(logged(3, "Create data connection failed\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, DataAcceptedButNeverSentEndsAtTheTimeout) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE f.bin", "213 10") +
               reply_to("RETR f.bin", "150 go") + Script{read_to_end()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_GE(seconds_since(start), 0.9);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  expect_clean_failure(start);
}

TEST_F(FtpFault, NothingListeningOnTheControlPort) {
  uint16_t port = closed_port();
  EXPECT_EQ(dl_ftp_recv_to_file("127.0.0.1", port, nullptr, nullptr, "/f.bin", local().c_str(),
                                &err_),
            -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  EXPECT_TRUE(logged(3, "Connect Error\n"));
  EXPECT_EQ(open_fds(), fds_before_);
}

}  // namespace

// Servers that misbehave: each failure ends with its code inside the
// time-out (1 s here), leaves no partial file and no descriptor open.
#include <gtest/gtest.h>

#include <string>

#include "tests/ftp/ftp_peer.h"
#include "tests/peer/listener.h"
#include "tests/support/row_name.h"

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
    EXPECT_EQ(open_descriptors(), fds_before_);
  }

  TcpPeer control_;
  TcpPeer data_;
};

// A download from a misbehaving server: what the data peer does (null when
// it is never reached), what the control peer does given the data peer's
// port, and how the failure must look.
struct DownloadFault {
  const char *name;
  Script (*data)();
  Script (*control)(uint16_t data_port);
  int code;              // kAnyFailure: any negative code
  const char *log_line;  // logged at level 3, or null
  const char *mention;   // some log line holds it, or null
  bool at_timeout;       // ends only once the 1 s time-out has passed
};

constexpr int kAnyFailure = 0;

Script read_all() { return {read_to_end()}; }

const DownloadFault kDownloadFaults[] = {
    {"ControlClosedBeforeAFinalReplyFailsInsteadOfLooping", nullptr,
     [](uint16_t) {
       return Script{send_bytes("220-first line of many\r\n220-and then\r\n"), close_conn()};
     },
     DL_ERR_FTP_REPLY, "Response error\n", nullptr, false},
    {"ControlClosedInTheMiddleOfALine", read_all,
     [](uint16_t data_port) {
       return anonymous_session(data_port) +
              Script{read_until("SIZE f.bin\r\n"), send_bytes("213 12"), close_conn()};
     },
     DL_ERR_READ, "Get file size error\n", nullptr, false},
    {"ReplyReaderFailsOnceTheServerHasClosed", nullptr,
     [](uint16_t) {
       return Script{send_bytes("220 hi\r\n"), read_until("USER anonymous\r\n"),
                     send_bytes("331-more to come\r\n"), close_conn()};
     },
     DL_ERR_READ, "ftp login error\n", nullptr, false},
    {"SilentServerEndsAtTheTimeout", nullptr, [](uint16_t) { return read_all(); },
     DL_ERR_FTP_REPLY, "Response error\n", "dl_select error! errno ", true},
    {"ServerStopsAnsweringDuringTheDownload",
     [] { return Script{send_bytes("part"), read_to_end()}; },
     [](uint16_t data_port) {
       return anonymous_session(data_port) + reply_to("SIZE f.bin", "213 100") +
              reply_to("RETR f.bin", "150 go") + read_all();
     },
     DL_ERR_READ, nullptr, "dl_select error! errno ", false},
    {"ControlResetFails", nullptr,
     [](uint16_t) {
       return Script{send_bytes("220 hi\r\n"), read_until("USER anonymous\r\n"), reset_conn()};
     },
     kAnyFailure, "ftp login error\n", nullptr, false},
    {"DataPortRefusingFailsTheOpen", nullptr,
     [](uint16_t) { return anonymous_session(closed_port()) + read_all(); }, DL_ERR_CONNECT,
     "Create data connection failed\n", nullptr, false},
    {"DataAcceptedButNeverSentEndsAtTheTimeout", read_all,
     [](uint16_t data_port) {
       return anonymous_session(data_port) + reply_to("SIZE f.bin", "213 10") +
              reply_to("RETR f.bin", "150 go") + read_all();
     },
     DL_ERR_READ, nullptr, nullptr, true},
};

class FtpDownloadFault : public FtpFault, public ::testing::WithParamInterface<DownloadFault> {};

TEST_P(FtpDownloadFault, FailsCleanly) {
  const DownloadFault &fault = GetParam();
  if (fault.data != nullptr) {
    data_.add(fault.data());
    data_.start();
  }
  control_.add(fault.control(data_.port()));
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  if (fault.at_timeout) {
    EXPECT_GE(seconds_since(start), 0.9);
  }
  if (fault.code == kAnyFailure) {
    EXPECT_LT(err_.code, 0);
  } else {
    EXPECT_EQ(err_.code, fault.code);
  }
  if (fault.mention != nullptr) {
    EXPECT_TRUE(capture_->mentions(fault.mention));
  }
  if (fault.log_line != nullptr) {
    EXPECT_TRUE(logged(3, fault.log_line));
  }
  expect_clean_failure(start);
}

INSTANTIATE_TEST_SUITE_P(Servers, FtpDownloadFault, ::testing::ValuesIn(kDownloadFaults),
                         RowName());

// An upload (STOR, the server not having the file) from a misbehaving
// server: the local file's content, what the control peer does after the
// login, and how the failure must look.
struct UploadFault {
  const char *name;
  std::string (*body)();
  Script (*control_tail)();
  int code;
  const char *log_line;     // logged at level 3, or null
  const char *absent_line;  // never logged at level 6, or null
};

const UploadFault kUploadFaults[] = {
    {"ControlResetDuringTheUploadReply", [] { return std::string(4096, 'u'); },
     [] {
       return reply_to("SIZE up.bin", "550 no") + reply_to("STOR up.bin", "150 ok") +
              Script{read_bytes(1), reset_conn()};
     },
     DL_ERR_SEND, nullptr, nullptr},
    {"ControlClosedBeforeTheUploadsSizeReply", [] { return std::string("body"); },
     [] { return Script{read_until("SIZE up.bin\r\n"), close_conn()}; }, DL_ERR_READ,
     "Get file size error\n", "FTP STOR\n"},
};

class FtpUploadFault : public FtpFault, public ::testing::WithParamInterface<UploadFault> {};

TEST_P(FtpUploadFault, FailsCleanly) {
  const UploadFault &fault = GetParam();
  std::string file = dir_.write("up.bin", fault.body());
  data_.add(read_all());
  data_.start();
  control_.add(anonymous_session(data_.port(), "PASS ") + fault.control_tail());
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_ftp_send_file("127.0.0.1", control_.port(), "", "", nullptr, file.c_str(), 2, 1,
                             &err_),
            -1);
  EXPECT_EQ(err_.code, fault.code);
  if (fault.log_line != nullptr) {
    EXPECT_TRUE(logged(3, fault.log_line));
  }
  if (fault.absent_line != nullptr) {
    EXPECT_FALSE(logged(6, fault.absent_line));
  }
  EXPECT_LT(seconds_since(start), kWithinTimeout);
  expect_no_fd_left();
}

INSTANTIATE_TEST_SUITE_P(Servers, FtpUploadFault, ::testing::ValuesIn(kUploadFaults), RowName());

TEST_F(FtpFault, DataConnectionNeverOpenedEndsAtTheTimeout) {
  Listener never(false, 0, 1);
  ASSERT_TRUE(never.fill_backlog());
  fds_before_ = open_descriptors();
  control_.add(anonymous_session(never.port()) + Script{read_to_end()});
  control_.start();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(), -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  EXPECT_TRUE(logged(3, "Create data connection failed\n"));
  expect_clean_failure(start);
}

TEST_F(FtpFault, NothingListeningOnTheControlPort) {
  uint16_t port = closed_port();
  EXPECT_EQ(dl_ftp_recv_to_file("127.0.0.1", port, nullptr, nullptr, "/f.bin", local().c_str(),
                                &err_),
            -1);
  EXPECT_EQ(err_.code, DL_ERR_CONNECT);
  EXPECT_TRUE(logged(3, "Connect Error\n"));
  EXPECT_EQ(open_descriptors(), fds_before_);
}

}  // namespace

// The FTP client's upload path against scripted servers: append or store,
// the size rules and limit modes, the transfer reply, the exact bytes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "ftp/ftp_conn.h"
#include "tests/ftp/ftp_peer.h"

namespace {

using namespace quarry_test;

class FtpUpload : public FtpPeerTest {
 protected:
  void SetUp() override {
    FtpPeerTest::SetUp();
    local_ = dir_.write("a.cfg", "local body");
  }
  // The anonymous session, then SIZE of |remote| answered with |size|.
  Script until_size(const std::string &remote, const std::string &size) {
    return anonymous_session(data_.port(), "PASS ") + reply_to("SIZE " + remote, size);
  }
  // A server that takes the data and confirms with 226 and 221.
  void accept_upload(const std::string &size_reply, const std::string &command) {
    data_.add({read_to_end()});
    data_.start();
    control_.add(until_size("a.cfg", size_reply) + reply_to(command + " a.cfg", "150 ok") +
                 Script{send_bytes("226 done\r\n")} + reply_to("QUIT", "221 bye") +
                 Script{read_to_end()});
    control_.start();
  }
  int upload(int post_mode, int limit_mode, const char *remote = nullptr) {
    return dl_ftp_send_file("127.0.0.1", control_.port(), "", "", remote, local_.c_str(),
                            post_mode, limit_mode, &err_);
  }
  // The command bytes of an upload of a.cfg, ending in |tail|.
  std::string commands(const std::string &tail) const {
    return anonymous_commands("PASS ") + "SIZE a.cfg\r\n" + tail;
  }

  TcpPeer control_;
  TcpPeer data_;
  std::string local_;
};

TEST_F(FtpUpload, StoreSendsTheFileAndQuits) {
  accept_upload("550 not found", "STOR");
  ASSERT_EQ(upload(2, 1), 0) << err_.msg;
  ASSERT_TRUE(control_.wait());
  ASSERT_TRUE(data_.wait());
  EXPECT_EQ(data_.received(0), "local body");
  EXPECT_EQ(control_.received(0), commands("STOR a.cfg\r\nQUIT\r\n"));
  EXPECT_TRUE(logged(6, "FTP STOR\n"));
  EXPECT_TRUE(logged(5, "Post open success\n"));
  EXPECT_TRUE(logged(5, "send: 10 bytes\n"));
}

TEST_F(FtpUpload, AppendWhenTheRemoteFileExists) {
  accept_upload("213 5", "APPE");
  ASSERT_EQ(upload(1, 1), 0) << err_.msg;
  ASSERT_TRUE(control_.wait());
  EXPECT_EQ(control_.received(0), commands("APPE a.cfg\r\nQUIT\r\n"));
  EXPECT_TRUE(logged(6, "FTP APPE\n"));
}

TEST_F(FtpUpload, MissingRemoteFileForcesStoreEvenWhenAppendWasAsked) {
  accept_upload("550 no such file", "STOR");
  ASSERT_EQ(upload(1, 1), 0) << err_.msg;
  EXPECT_TRUE(logged(6, "File not found, use STOR\n"));
  EXPECT_TRUE(logged(6, "FTP STOR\n"));
}

TEST_F(FtpUpload, LimitMode1StoresWhenRemotePlusLocalExceedTheLimit) {
  set_number(DL_OPT_MAX_FILE_SIZE, 100);
  accept_upload("213 95", "STOR");
  ASSERT_EQ(upload(1, 1), 0) << err_.msg;
  EXPECT_TRUE(logged(6, "exceed max file size,stor\n"));
}

TEST_F(FtpUpload, LimitMode2QuitsAndFails) {
  set_number(DL_OPT_MAX_FILE_SIZE, 100);
  data_.add({read_to_end()});
  data_.start();
  control_.add(until_size("a.cfg", "213 95") + reply_to("QUIT", "221 bye") + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(upload(1, 2), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_STREQ(err_.msg, "Exceed max size");
  EXPECT_TRUE(logged(6, "exceed max file size,stop\n"));
  ASSERT_TRUE(control_.wait());
  EXPECT_EQ(control_.received(0), commands("QUIT\r\n"));
}

TEST_F(FtpUpload, UnknownLimitModeFailsWithTheLastReply) {
  set_number(DL_OPT_MAX_FILE_SIZE, 100);
  data_.add({read_to_end()});
  data_.start();
  control_.add(until_size("a.cfg", "213 95") + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(upload(1, 7), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, "213 95");
  EXPECT_TRUE(logged(3, "unknow limit mode\n"));
}

TEST_F(FtpUpload, UnknownPostModeFailsWithTheLastReply) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(until_size("a.cfg", "213 1") + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(upload(5, 1), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, "213 1");
  EXPECT_TRUE(logged(3, "Unknow post mode\n"));
}

TEST_F(FtpUpload, RefusedStoreReportsTheReplyCode) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(until_size("a.cfg", "550 no") + reply_to("STOR a.cfg", "553 not allowed") +
               Script{read_to_end()});
  control_.start();
  EXPECT_EQ(upload(2, 1), -1);
  EXPECT_EQ(err_.code, 553);
  EXPECT_STREQ(err_.msg, "Unknown Error");
  EXPECT_TRUE(logged(3, "Open data transfer conn err\n"));
}

TEST_F(FtpUpload, MissingTransferReplyFailsWithSendError) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(until_size("a.cfg", "550 no") + reply_to("STOR a.cfg", "150 ok") +
               Script{send_bytes("451 local error\r\n"), read_to_end()});
  control_.start();
  EXPECT_EQ(upload(2, 1), -1);
  EXPECT_EQ(err_.code, DL_ERR_SEND);
  EXPECT_FALSE(capture_->mentions("send: "));
}

TEST_F(FtpUpload, RemoteNameAndLoginFallbackAnnounced) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER bob", "530 no") +
               reply_to("USER anonymous", "331 pw") + reply_to("PASS ", "230 ok") +
               reply_to("TYPE I", "200 ok") + reply_to("PASV", pasv_reply(data_.port())) +
               reply_to("SIZE cfg/new.cfg", "550 no") + reply_to("STOR cfg/new.cfg", "150 ok") +
               Script{send_bytes("226 done\r\n")} + reply_to("QUIT", "221 bye") +
               Script{read_to_end()});
  control_.start();
  ASSERT_EQ(dl_ftp_send_file("127.0.0.1", control_.port(), "bob", "pw", "/cfg/new.cfg",
                             local_.c_str(), 1, 1, &err_),
            0)
      << err_.msg;
  EXPECT_TRUE(logged(5, "login failed,Try anonymous!\n"));
}

TEST_F(FtpUpload, MissingLocalFileFailsWithItsOwnText) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(until_size("gone.cfg", "550 no") + Script{read_to_end()});
  control_.start();
  std::string missing = dir_.file("gone.cfg");
  EXPECT_EQ(dl_ftp_send_file("127.0.0.1", control_.port(), nullptr, "", nullptr, missing.c_str(),
                             2, 1, &err_),
            -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, "cannot get local file size\n");
  EXPECT_TRUE(logged(3, "cannot get local file size\n"));
}

TEST_F(FtpUpload, CloseAfterSendLeavesTheReusedNumberAlone) {
  accept_upload("550 no", "STOR");
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(dl_ftp_send_open(&conn, "127.0.0.1", control_.port(), nullptr, "", local_.c_str(),
                             nullptr, 2, 1, &err_),
            0)
      << err_.msg;
  const int data_number = conn->data;
  ASSERT_EQ(dl_ftp_send(conn, local_.c_str(), &err_), 10);
  // The lowest free number is the closed data socket's: another file now
  // holds it.
  int other = open("/dev/null", O_RDONLY);
  ASSERT_EQ(other, data_number);
  dl_ftp_close(conn);
  EXPECT_NE(fcntl(other, F_GETFD), -1) << "the close took another file's descriptor";
  close(other);
  EXPECT_TRUE(control_.wait(3000));
  EXPECT_TRUE(data_.wait(3000));
  EXPECT_EQ(open_descriptors(), fds_before_);
}

TEST_F(FtpUpload, SendOnAHandleWhoseDataIsClosedIsRefused) {
  accept_upload("550 no", "STOR");
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(dl_ftp_send_open(&conn, "127.0.0.1", control_.port(), nullptr, "", local_.c_str(),
                             nullptr, 2, 1, &err_),
            0);
  ASSERT_EQ(dl_ftp_send(conn, local_.c_str(), &err_), 10);
  EXPECT_EQ(dl_ftp_send(conn, local_.c_str(), &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_TRUE(logged(3, "ftp read with invalid parameter\n"));
  dl_ftp_close(conn);
}

TEST_F(FtpUpload, ArgumentChecks) {
  dl_ftp_conn *conn = reinterpret_cast<dl_ftp_conn *>(0x1);
  EXPECT_EQ(dl_ftp_send_open(&conn, "127.0.0.1", 21, nullptr, nullptr, nullptr, nullptr, 1, 1,
                             &err_),
            -1);
  EXPECT_EQ(conn, nullptr);
  EXPECT_EQ(err_.code, DL_ERR_PARAM);
  EXPECT_EQ(dl_ftp_send_open(&conn, "127.0.0.1", 70000, nullptr, nullptr, "x", nullptr, 1, 1,
                             &err_),
            -1);
  std::string long_host(512, 'h');
  EXPECT_EQ(dl_ftp_open(&conn, long_host.c_str(), 21, nullptr, nullptr, "x", &err_), -1);
  EXPECT_EQ(capture_->count(5, 3, "Invalid Parameter\n"), 3);
  EXPECT_EQ(dl_ftp_send(nullptr, "x", &err_), -1);
  char buf[4];
  EXPECT_EQ(dl_ftp_read(nullptr, buf, 4, &err_), -1);
  EXPECT_EQ(capture_->count(5, 3, "ftp read with invalid parameter\n"), 2);
  dl_ftp_close(nullptr);
  EXPECT_TRUE(logged(3, "ftp close with invalid parameter\n"));
}

}  // namespace

// The FTP client's download path against scripted servers: every reply
// path of the open, the read and the save, with the exact command bytes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tests/ftp/ftp_peer.h"

namespace {

using namespace quarry_test;

class FtpDownload : public FtpPeerTest {
 protected:
  // A server that serves |body| as f.bin after the anonymous session.
  void serve(const std::string &body, const std::string &size_reply = "") {
    data_.add({send_bytes(body), close_conn()});
    data_.start();
    std::string size = size_reply.empty() ? "213 " + std::to_string(body.size()) : size_reply;
    control_.add(anonymous_session(data_.port()) + reply_to("SIZE f.bin", size) +
                 reply_to("RETR f.bin", "150 here it comes") + Script{read_to_end()});
    control_.start();
  }
  int download(const std::string &local, const char *user = nullptr,
               const char *password = nullptr) {
    return dl_ftp_recv_to_file("127.0.0.1", control_.port(), user, password, "/f.bin",
                               local.c_str(), &err_);
  }

  TcpPeer control_;
  TcpPeer data_;
};

TEST_F(FtpDownload, SavesTheFileAndSendsTheExactCommands) {
  serve("0123456789");
  std::string local = dir_.file("out.bin");
  ASSERT_EQ(download(local), 0) << err_.msg;
  EXPECT_EQ(read_file(local), "0123456789");
  ASSERT_TRUE(control_.wait());
  EXPECT_EQ(control_.received(0), anonymous_commands() + "SIZE f.bin\r\nRETR f.bin\r\n");
  EXPECT_TRUE(logged(6, "Sending size cmd to get file size\n"));
  EXPECT_TRUE(logged(6, "File size:10\n"));
  EXPECT_TRUE(logged(5, "Open Success\n"));
  EXPECT_TRUE(logged(5, "recv: 10 bytes\n"));
  EXPECT_EQ(err_.code, 0);
}

TEST_F(FtpDownload, OnlyTheFinalLineOfAMultiLineGreetingCounts) {
  data_.add({send_bytes("xy"), close_conn()});
  data_.start();
  control_.add(Script{send_bytes("220-Welcome\r\n continued text\r\n220-more\r\n220 ready now\r\n")} +
               reply_to("USER anonymous", "331 pw") + reply_to("PASS", "230 ok") +
               reply_to("TYPE I", "200 ok") + reply_to("PASV", pasv_reply(data_.port())) +
               reply_to("SIZE f.bin", "213 2") + reply_to("RETR f.bin", "150 go") +
               Script{read_to_end()});
  control_.start();
  std::string local = dir_.file("g.bin");
  ASSERT_EQ(download(local), 0) << err_.msg;
  EXPECT_EQ(read_file(local), "xy");
}

TEST_F(FtpDownload, RefusedUserFallsBackToAnonymousWithEmptyPassword) {
  data_.add({send_bytes("abc"), close_conn()});
  data_.start();
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER bob", "530 no such user") +
               reply_to("USER anonymous", "331 pw") + reply_to("PASS ", "230 ok") +
               reply_to("TYPE I", "200 ok") + reply_to("PASV", pasv_reply(data_.port())) +
               reply_to("SIZE f.bin", "213 3") + reply_to("RETR f.bin", "150 go") +
               Script{read_to_end()});
  control_.start();
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(dl_ftp_open(&conn, "127.0.0.1", control_.port(), "bob", "pw", "f.bin", &err_), 0)
      << err_.msg;
  char buf[8];
  EXPECT_EQ(dl_ftp_read(conn, buf, sizeof(buf), &err_), 3);
  EXPECT_EQ(dl_ftp_read(conn, buf, sizeof(buf), &err_), 0);
  dl_ftp_close(conn);
  ASSERT_TRUE(control_.wait());
  EXPECT_EQ(control_.received(0),
            "USER bob\r\nUSER anonymous\r\nPASS \r\nTYPE I\r\nPASV\r\nSIZE f.bin\r\nRETR f.bin\r\n");
  // The streaming open falls back without a word.
  EXPECT_FALSE(logged(5, "login failed,Try anonymous!\n"));
}

TEST_F(FtpDownload, GivenPasswordIsSentAfter331) {
  data_.add({send_bytes("z"), close_conn()});
  data_.start();
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER bob", "331 pw") +
               reply_to("PASS s3cret", "230 ok") + reply_to("TYPE I", "200 ok") +
               reply_to("PASV", pasv_reply(data_.port())) + reply_to("SIZE f.bin", "213 1") +
               reply_to("RETR f.bin", "125 already open") + Script{read_to_end()});
  control_.start();
  ASSERT_EQ(download(dir_.file("z.bin"), "bob", "s3cret"), 0) << err_.msg;
  EXPECT_EQ(control_.received(0).substr(0, 23), "USER bob\r\nPASS s3cret\r\n");
  EXPECT_FALSE(capture_->mentions("s3cret"));
}

TEST_F(FtpDownload, UserAnsweredWith230SkipsThePassword) {
  data_.add({send_bytes("q"), close_conn()});
  data_.start();
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER anonymous", "230 welcome") +
               reply_to("TYPE I", "200 ok") + reply_to("PASV", pasv_reply(data_.port())) +
               reply_to("SIZE f.bin", "213 1") + reply_to("RETR f.bin", "150 go") +
               Script{read_to_end()});
  control_.start();
  ASSERT_EQ(download(dir_.file("q.bin")), 0) << err_.msg;
  EXPECT_EQ(control_.received(0), "USER anonymous\r\nTYPE I\r\nPASV\r\nSIZE f.bin\r\nRETR f.bin\r\n");
}

TEST_F(FtpDownload, AnonymousRefusedToo) {
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER bob", "530 no") +
               reply_to("USER anonymous", "530 no anonymous either") + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(download(dir_.file("n.bin"), "bob", "pw"), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_USER);
  EXPECT_STREQ(err_.msg, "Unknown Error");
  EXPECT_TRUE(logged(3, "ftp login error\n"));
  EXPECT_FALSE(file_exists(dir_.file("n.bin")));
}

TEST_F(FtpDownload, EmptyUserRefusedFailsAtOnce) {
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER anonymous", "331 pw") +
               reply_to("PASS", "530 wrong") + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(download(dir_.file("n.bin"), ""), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_PASS);
  EXPECT_EQ(capture_->count(5, 3, "ftp login error\n"), 1);
  ASSERT_TRUE(control_.wait());
  EXPECT_EQ(control_.received(0), "USER anonymous\r\nPASS\r\n");
}

TEST_F(FtpDownload, Epsv522FallsBackToPasv) {
  set_number(DL_OPT_IPV6_ENABLE, 1);
  data_.add({send_bytes("v4"), close_conn()});
  data_.start();
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER anonymous", "331 pw") +
               reply_to("PASS", "230 ok") + reply_to("TYPE I", "200 ok") +
               reply_to("EPSV", "522 Bad network protocol.") +
               reply_to("PASV", pasv_reply(data_.port())) + reply_to("SIZE f.bin", "213 2") +
               reply_to("RETR f.bin", "150 go") + Script{read_to_end()});
  control_.start();
  ASSERT_EQ(download(dir_.file("e.bin")), 0) << err_.msg;
  EXPECT_EQ(read_file(dir_.file("e.bin")), "v4");
  EXPECT_TRUE(logged(4, "DL_ERRFTP:[522 Bad network protocol.], Try use PASV\n"));
}

TEST_F(FtpDownload, EpsvConnectsToTheControlHost) {
  set_number(DL_OPT_IPV6_ENABLE, 1);
  data_.add({send_bytes("ext"), close_conn()});
  data_.start();
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER anonymous", "331 pw") +
               reply_to("PASS", "230 ok") + reply_to("TYPE I", "200 ok") +
               reply_to("EPSV", epsv_reply(data_.port())) + reply_to("SIZE f.bin", "213 3") +
               reply_to("RETR f.bin", "150 go") + Script{read_to_end()});
  control_.start();
  ASSERT_EQ(download(dir_.file("x.bin")), 0) << err_.msg;
  EXPECT_EQ(read_file(dir_.file("x.bin")), "ext");
}

TEST_F(FtpDownload, EpsvRefusedOtherwiseFails) {
  set_number(DL_OPT_IPV6_ENABLE, 1);
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER anonymous", "331 pw") +
               reply_to("PASS", "230 ok") + reply_to("TYPE I", "200 ok") +
               reply_to("EPSV", "500 unknown command") + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(download(dir_.file("x.bin")), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, "500 unknown command");
  EXPECT_TRUE(logged(3, "Create data connection failed\n"));
}

class FtpPassiveReply : public FtpDownload,
                        public ::testing::WithParamInterface<std::pair<const char *, bool>> {};

TEST_P(FtpPassiveReply, MalformedReplyFailsWith15AndTheReplyText) {
  control_.add(Script{send_bytes("220 ready\r\n")} + reply_to("USER anonymous", "331 pw") +
               reply_to("PASS", "230 ok") + reply_to("TYPE I", "200 ok") +
               reply_to("PASV", GetParam().first) + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(download(dir_.file("m.bin")), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, GetParam().first);
  EXPECT_EQ(logged(3, "Passive mode string format error\n"), GetParam().second);
  EXPECT_TRUE(logged(3, "Create data connection failed\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Replies, FtpPassiveReply,
    ::testing::Values(std::make_pair("227 Entering Passive Mode 127,0,0,1,4,1", true),
                      std::make_pair("227 Entering Passive Mode (127,0,0,1,4,1", true),
                      std::make_pair("227 Entering Passive Mode (127001)", false),
                      std::make_pair("227 Entering Passive Mode (127.0.0.1.4,1)", false)));

TEST_F(FtpDownload, SizeRefusedFailsWithTheReplyText) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE f.bin", "550 no such file") +
               Script{read_to_end()});
  control_.start();
  EXPECT_EQ(download(dir_.file("s.bin")), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, "550 no such file");
  EXPECT_TRUE(logged(3, "Get file size error\n"));
  EXPECT_FALSE(file_exists(dir_.file("s.bin")));
}

TEST_F(FtpDownload, RetrAnsweredAbove150Fails) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE f.bin", "213 4") +
               reply_to("RETR f.bin", "425 cannot open data connection") + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(download(dir_.file("r.bin")), -1);
  EXPECT_EQ(err_.code, DL_ERR_FTP_REPLY);
  EXPECT_STREQ(err_.msg, "425 cannot open data connection");
  EXPECT_TRUE(logged(3, "Server response wrong code : 425\n"));
}

TEST_F(FtpDownload, ReplyLineLongerThanTheBufferFails) {
  data_.add({read_to_end()});
  data_.start();
  control_.add(anonymous_session(data_.port()) +
               reply_to("SIZE f.bin", "213 " + std::string(600, '9')) + Script{read_to_end()});
  control_.start();
  EXPECT_EQ(download(dir_.file("l.bin")), -1);
  EXPECT_TRUE(logged(3, "Buffer not enough! buffer len 512\n"));
  EXPECT_TRUE(logged(3, "Get file size error\n"));
  EXPECT_EQ(err_.code, DL_ERR_FAIL);
}

TEST_F(FtpDownload, OverTheSizeLimitStopsAndRemovesThePartialFile) {
  set_number(DL_OPT_MAX_FILE_SIZE, 1000);
  serve(std::string(1500, 'b'));
  std::string local = dir_.file("big.bin");
  EXPECT_EQ(download(local), -1);
  EXPECT_EQ(err_.code, DL_ERR_MAX_SIZE);
  EXPECT_STREQ(err_.msg, "exceed max size 1000");
  EXPECT_TRUE(logged(3, "exceed max size\n"));
  EXPECT_FALSE(file_exists(local));
}

TEST_F(FtpDownload, DataClosedBeforeTheAnnouncedSizeFailsWithoutSpinning) {
  serve("short", "213 100000");
  std::string local = dir_.file("early.bin");
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(download(local), -1);
  EXPECT_LT(seconds_since(start), 0.9);
  EXPECT_EQ(err_.code, DL_ERR_READ);
  EXPECT_TRUE(logged(3, "dl_select error! errno 0\n"));
  EXPECT_FALSE(file_exists(local));
  EXPECT_TRUE(control_.wait(3000));
  EXPECT_TRUE(data_.wait(3000));
  EXPECT_EQ(open_descriptors(), fds_before_);
}

TEST_F(FtpDownload, RemotePathWithoutSlashSavesUnderTheQuirkName) {
  data_.add({send_bytes("q"), close_conn()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE file.bin", "213 1") +
               reply_to("RETR file.bin", "150 go") + Script{read_to_end()});
  control_.start();
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  int ret = dl_ftp_recv_to_file("127.0.0.1", control_.port(), nullptr, nullptr, "file.bin",
                                nullptr, &err_);
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_EQ(ret, 0) << err_.msg;
  EXPECT_EQ(read_file(dir_.file("ile.bin")), "q");
}

TEST_F(FtpDownload, RemotePathWithSlashSavesUnderItsLastSegment) {
  data_.add({send_bytes("d"), close_conn()});
  data_.start();
  control_.add(anonymous_session(data_.port()) + reply_to("SIZE pub/d.txt", "213 1") +
               reply_to("RETR pub/d.txt", "150 go") + Script{read_to_end()});
  control_.start();
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  int ret = dl_ftp_recv_to_file("127.0.0.1", control_.port(), nullptr, nullptr, "/pub/d.txt",
                                nullptr, &err_);
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_EQ(ret, 0) << err_.msg;
  EXPECT_EQ(read_file(dir_.file("d.txt")), "d");
}

TEST_F(FtpDownload, ReadGivesExactlyTheAskedCountThenTheRest) {
  serve("abcdefghij");
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(dl_ftp_open(&conn, "127.0.0.1", control_.port(), nullptr, nullptr, "/f.bin", &err_),
            0);
  char buf[16] = {};
  EXPECT_EQ(dl_ftp_read(conn, buf, 4, &err_), 4);
  EXPECT_EQ(std::string(buf, 4), "abcd");
  EXPECT_EQ(dl_ftp_read(conn, buf, 16, &err_), 6);
  EXPECT_EQ(std::string(buf, 6), "efghij");
  EXPECT_EQ(dl_ftp_read(conn, buf, 16, &err_), 0);
  dl_ftp_close(conn);
  EXPECT_TRUE(control_.wait(3000));
  EXPECT_TRUE(data_.wait(3000));
  EXPECT_EQ(open_descriptors(), fds_before_);
}

TEST_F(FtpDownload, ReadsOfEverySizeGiveTheWholeFileInOrder) {
  std::string body;
  for (int i = 0; body.size() < 100000; ++i) body += std::to_string(i) + ",";
  serve(body);
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(dl_ftp_open(&conn, "127.0.0.1", control_.port(), nullptr, nullptr, "/f.bin", &err_),
            0);
  // Small reads served from what arrived, and reads larger than that.
  const int sizes[] = {3, 20000, 512, 1, 40000, 7};
  std::string got;
  char buf[40000];
  for (int i = 0;; ++i) {
    int n = dl_ftp_read(conn, buf, sizes[i % 6], &err_);
    ASSERT_GE(n, 0) << err_.msg;
    if (n == 0) break;
    size_t left = body.size() - got.size();
    EXPECT_EQ(static_cast<size_t>(n), std::min(left, static_cast<size_t>(sizes[i % 6])));
    got.append(buf, static_cast<size_t>(n));
  }
  EXPECT_TRUE(got == body);
  dl_ftp_close(conn);
  EXPECT_TRUE(control_.wait(3000));
  EXPECT_TRUE(data_.wait(3000));
  EXPECT_EQ(open_descriptors(), fds_before_);
}

TEST_F(FtpDownload, BytesPastTheAnnouncedSizeAreNeverHandedOut) {
  serve("abcdefghijEXTRA", "213 10");
  dl_ftp_conn *conn = nullptr;
  ASSERT_EQ(dl_ftp_open(&conn, "127.0.0.1", control_.port(), nullptr, nullptr, "/f.bin", &err_),
            0);
  char buf[64] = {};
  EXPECT_EQ(dl_ftp_read(conn, buf, 3, &err_), 3);
  EXPECT_EQ(dl_ftp_read(conn, buf + 3, 60, &err_), 7);
  EXPECT_EQ(std::string(buf), "abcdefghij");
  EXPECT_EQ(dl_ftp_read(conn, buf, 60, &err_), 0);
  dl_ftp_close(conn);
}

TEST_F(FtpDownload, OpenWithoutLocalFileRoomFailsAndKeepsOthersFiles) {
  serve("abc");
  std::string local = dir_.file("no/such/dir/f.bin");
  EXPECT_EQ(download(local), -1);
  EXPECT_TRUE(logged(3, "Open file for recv fail!\n"));
  EXPECT_EQ(err_.code, 0);
}

}  // namespace

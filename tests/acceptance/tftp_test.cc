// The TFTP client through its exported functions, against scripted UDP
// servers on loopback.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>

#include "tests/support/log_capture.h"
#include "quarry.h"
#include "tests/acceptance/tftp_peer.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::TempDir;
using namespace tftp_peer;

const unsigned kTftp = DL_LOG_MODULE_TFTP;
const int kError = 3;
const int kNotice = 5;
const int kInfo = 6;

std::string pattern(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>('a' + (i * 7 + i / 26) % 26);
  return s;
}

double now_s() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + t.tv_nsec / 1e9;
}

class TftpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    g_dl_cfg.timeout_s = 1;
    g_dl_cfg.max_file_size = 100u << 20;
    memset(&err_, 0, sizeof(err_));
  }
  // Opens, reads everything in |chunk|-byte reads and closes.
  std::string download(int port, const std::string &name, int chunk = 4096) {
    dl_tftp_conn *conn = nullptr;
    if (dl_tftp_open(&conn, "127.0.0.1", port, name.c_str(), &err_) != 0) return "<open failed>";
    std::string out;
    std::string buf(static_cast<size_t>(chunk), '\0');
    for (;;) {
      int n = dl_tftp_read(conn, &buf[0], chunk, &err_);
      if (n <= 0) {
        if (n < 0) out += "<read failed>";
        break;
      }
      out.append(buf, 0, static_cast<size_t>(n));
    }
    dl_tftp_close(conn);
    return out;
  }
  dl_error err_;
};

TEST_F(TftpTest, DownloadNegotiatesBlksizeAndSendsExactRequest) {
  LogCapture capture;
  Peer peer;
  std::string content = pattern(1432 * 2 + 10);
  peer.run([&](Peer &p) { serve(p, content, 1432); });
  EXPECT_EQ(content, download(peer.port(), "/dir/file.bin"));
  peer.join();
  ASSERT_GE(peer.received.size(), 5u);
  EXPECT_EQ(request(1, "dir/file.bin"), peer.received[0]);
  EXPECT_EQ(ack(0), peer.received[1]);
  EXPECT_EQ(ack(1), peer.received[2]);
  EXPECT_EQ(ack(3), peer.received[4]);
  std::string port = std::to_string(peer.port());
  EXPECT_TRUE(capture.has(kTftp, kNotice, "tftp open begin, host: 127.0.0.1, port:" + port +
                                              ", remote_name:/dir/file.bin\n"))
      << capture.text();
  EXPECT_TRUE(capture.has(kTftp, kInfo, "Send Request Packet\n"));
  EXPECT_TRUE(capture.has(kTftp, kNotice, "tftp open success\n"));
  EXPECT_TRUE(capture.has(kTftp, kInfo, "recv OACK\n"));
  EXPECT_TRUE(capture.has(kTftp, kInfo, "using blksize 1432\n"));
}

TEST_F(TftpTest, PlainDataWithoutOackIsServedIn512ByteBlocks) {
  Peer peer;
  std::string content = pattern(512 * 3 + 1);
  peer.run([&](Peer &p) { serve(p, content, 0); });
  EXPECT_EQ(content, download(peer.port(), "f"));
  peer.join();
  ASSERT_EQ(5u, peer.received.size());
  EXPECT_EQ(ack(4), peer.received[4]);
}

TEST_F(TftpTest, OackWithoutBlksizeFallsBackTo512) {
  LogCapture capture;
  Peer peer;
  std::string content = pattern(700);
  peer.run([&](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    p.send(oack({"tsize", "700"}));
    p.recv(&pkt);
    p.send(data(1, content.substr(0, 512)));
    p.recv(&pkt);
    p.send(data(2, content.substr(512)));
    p.recv(&pkt);
  });
  EXPECT_EQ(content, download(peer.port(), "f"));
  peer.join();
  EXPECT_TRUE(capture.mentions("server only supports blocksize of 512\n")) << capture.text();
}

TEST_F(TftpTest, BlksizeNameIsMatchedWithoutRegardToCase) {
  LogCapture capture;
  Peer peer;
  peer.run([&](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    p.send(oack({"BlkSize", "24"}));
    p.recv(&pkt);
    p.send(data(1, pattern(24)));
    p.recv(&pkt);
    p.send(data(2, "xy"));
    p.recv(&pkt);
  });
  EXPECT_EQ(pattern(24) + "xy", download(peer.port(), "f"));
  EXPECT_TRUE(capture.has(kTftp, kInfo, "using blksize 24\n")) << capture.text();
}

class BadBlksize : public TftpTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(BadBlksize, IsRefusedWithTheErrorPacket) {
  LogCapture capture;
  Peer peer;
  peer.run([&](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    p.send(oack({"blksize", GetParam()}));
    p.recv(&pkt, 2000);
  });
  EXPECT_EQ("<read failed>", download(peer.port(), "f"));
  peer.join();
  EXPECT_EQ(DL_ERR_READ, err_.code);
  ASSERT_EQ(2u, peer.received.size());
  EXPECT_EQ(16u, peer.received[1].size());
  EXPECT_EQ(blksize_error(), peer.received[1]);
  EXPECT_TRUE(capture.has(kTftp, kError, std::string("bad blocksize '") + GetParam() + "'\n"))
      << capture.text();
  EXPECT_TRUE(capture.mentions("err blksize\n"));
}
INSTANTIATE_TEST_SUITE_P(Values, BadBlksize, ::testing::Values("23", "1433"));

TEST_F(TftpTest, BlksizeLimitsAreAccepted) {
  for (unsigned size : {24u, 1432u}) {
    LogCapture capture;
    Peer peer;
    std::string content = pattern(size * 2 + 3);
    peer.run([&](Peer &p) { serve(p, content, size); });
    EXPECT_EQ(content, download(peer.port(), "f"));
    EXPECT_TRUE(capture.has(kTftp, kInfo, "using blksize " + std::to_string(size) + "\n"));
  }
}

TEST_F(TftpTest, SmallReadBufferKeepsTheRestForTheNextRead) {
  Peer peer;
  std::string content = pattern(512 + 100);
  peer.run([&](Peer &p) { serve(p, content, 0); });
  dl_tftp_conn *conn = nullptr;
  ASSERT_EQ(0, dl_tftp_open(&conn, "127.0.0.1", peer.port(), "f", &err_));
  char buf[100];
  std::string got;
  int n = dl_tftp_read(conn, buf, 100, &err_);
  EXPECT_EQ(100, n);
  got.append(buf, 100);
  while ((n = dl_tftp_read(conn, buf, 100, &err_)) > 0) got.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(0, n);
  EXPECT_EQ(content, got);
  EXPECT_EQ(0, dl_tftp_read(conn, buf, 100, &err_));
  dl_tftp_close(conn);
}

TEST_F(TftpTest, BlockNumberWrapsFrom65535To0) {
  Peer peer;
  std::string content = pattern(65536 * 24 + 5);
  peer.run([&](Peer &p) { serve(p, content, 24); });
  EXPECT_EQ(content.size(), download(peer.port(), "f", 1 << 21).size());
  peer.join();
  ASSERT_EQ(65539u, peer.received.size());
  EXPECT_EQ(ack(65535), peer.received[65536]);
  EXPECT_EQ(ack(0), peer.received[65537]);
  EXPECT_EQ(ack(1), peer.received[65538]);
}

TEST_F(TftpTest, SilentServerIsNotATftpServerAfterThreeSeconds) {
  Peer peer;
  peer.run([](Peer &p) { p.recv_or_empty(5000); });
  dl_tftp_conn *conn = reinterpret_cast<dl_tftp_conn *>(&err_);
  double start = now_s();
  EXPECT_EQ(-1, dl_tftp_open(&conn, "127.0.0.1", peer.port(), "f", &err_));
  double took = now_s() - start;
  EXPECT_EQ(nullptr, conn);
  EXPECT_EQ(DL_ERR_NOT_TFTP, err_.code);
  EXPECT_STREQ("Host is not a tftp server", err_.msg);
  EXPECT_GE(took, 2.8);
  EXPECT_LT(took, 6.0);
}

TEST_F(TftpTest, RepeatedPreviousBlockIsAcknowledgedAgain) {
  LogCapture capture;
  Peer peer;
  std::string content = pattern(512 + 7);
  peer.run([&](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    p.send(data(1, content.substr(0, 512)));
    p.recv(&pkt);
    p.send(data(1, content.substr(0, 512)));
    p.recv(&pkt);
    p.send(data(2, content.substr(512)));
    p.recv(&pkt);
  });
  EXPECT_EQ(content, download(peer.port(), "f"));
  peer.join();
  ASSERT_EQ(4u, peer.received.size());
  EXPECT_EQ(ack(1), peer.received[1]);
  EXPECT_EQ(ack(1), peer.received[2]);
  EXPECT_EQ(ack(2), peer.received[3]);
  EXPECT_TRUE(capture.has(kTftp, kError, "tftp syn err\n")) << capture.text();
  EXPECT_TRUE(capture.has(kTftp, kNotice, "discarded 0 packets\n"));
}

TEST_F(TftpTest, SixForeignPacketsExhaustTheRetryBudget) {
  Peer peer;
  peer.run([](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    for (int i = 0; i < 6; ++i) p.send(error(1, "nope"));
  });
  EXPECT_EQ("<read failed>", download(peer.port(), "f"));
  EXPECT_EQ(DL_ERR_READ, err_.code);
}

TEST_F(TftpTest, SilenceDuringTransferIsAReadError) {
  LogCapture capture;
  Peer peer;
  peer.run([](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    p.send(data(1, pattern(512)));
    p.recv(&pkt);
  });
  EXPECT_EQ(pattern(512) + "<read failed>", download(peer.port(), "f", 512));
  EXPECT_EQ(DL_ERR_READ, err_.code);
  EXPECT_TRUE(capture.mentions("Error Select! errno ")) << capture.text();
}

TEST_F(TftpTest, OpenRefusesBadArguments) {
  LogCapture capture;
  const std::string line = LogCapture::line(kTftp, kError, "tftp open with invalid parmeter\n");
  dl_tftp_conn *conn = nullptr;
  EXPECT_EQ(-1, dl_tftp_open(nullptr, "127.0.0.1", 69, "f", &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  memset(&err_, 0, sizeof(err_));
  EXPECT_EQ(-1, dl_tftp_open(&conn, nullptr, 69, "f", &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  EXPECT_EQ(-1, dl_tftp_send_open(&conn, "127.0.0.1", 65536, "f", &err_));
  EXPECT_EQ(-1, dl_tftp_open(&conn, "127.0.0.1", 69, nullptr, &err_));
  EXPECT_EQ(-1, dl_tftp_open(&conn, "127.0.0.1", 69, "f", nullptr));
  EXPECT_EQ(nullptr, conn);
  memset(&err_, 0, sizeof(err_));
  EXPECT_EQ(-1, dl_tftp_open(&conn, "127.0.0.1", 69, std::string(256, 'n').c_str(), &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  EXPECT_STREQ("Invalid Parameter", err_.msg);
  std::string expected;
  for (int i = 0; i < 6; ++i) expected += line;
  EXPECT_EQ(expected, capture.text());
}

TEST_F(TftpTest, LongestNameIsSent) {
  Peer peer;
  std::string name(255, 'n');
  peer.run([&](Peer &p) { serve(p, "x", 0); });
  EXPECT_EQ("x", download(peer.port(), name));
  peer.join();
  ASSERT_FALSE(peer.received.empty());
  EXPECT_EQ(request(1, name), peer.received[0]);
}

TEST_F(TftpTest, ReadSendAndCloseRefuseBadArguments) {
  LogCapture capture;
  char buf[8];
  EXPECT_EQ(-1, dl_tftp_read(nullptr, buf, 8, &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  memset(&err_, 0, sizeof(err_));
  EXPECT_EQ(-1, dl_tftp_send(nullptr, "/etc/hostname", &err_));
  EXPECT_EQ(DL_ERR_PARAM, err_.code);
  dl_tftp_close(nullptr);
  EXPECT_EQ(LogCapture::line(kTftp, kError, "Tftp read with invalid parameter\n") +
                LogCapture::line(kTftp, kError, "Tftp read with invalid parameter\n") +
                LogCapture::line(kTftp, kError, "tftp close with invalid parameter\n"),
            capture.text());
}

TEST_F(TftpTest, DownloadNeedsAnInitialisedLibrary) {
  dl_exit();
  LogCapture capture;
  dl_tftp_conn *conn = nullptr;
  int rc = dl_tftp_open(&conn, "127.0.0.1", 69, "f", &err_);
  int code = err_.code;
  std::string log = capture.text();
  dl_config_init();
  EXPECT_EQ(-1, rc);
  EXPECT_EQ(nullptr, conn);
  EXPECT_EQ(DL_ERR_NO_CONFIG, code);
  EXPECT_NE(std::string::npos, log.find("config doesn't init\n")) << log;
}

}  // namespace

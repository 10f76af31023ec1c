// TFTP saves to file, uploads and the transfer front door's TFTP branch,
// against scripted UDP servers (real servers: tftp_servers_test.cc).
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "tests/support/log_capture.h"
#include "quarry.h"
#include "tests/acceptance/tftp_peer.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::TempDir;
using namespace tftp_peer;

const unsigned kTftp = DL_LOG_MODULE_TFTP;
const unsigned kCommon = DL_LOG_MODULE_COMMON;
const int kError = 3;
const int kNotice = 5;
const int kInfo = 6;

std::string pattern(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>('A' + (i * 5 + i / 26) % 26);
  return s;
}

class TftpFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    g_dl_cfg.timeout_s = 1;
    g_dl_cfg.max_file_size = 100u << 20;
    memset(&err_, 0, sizeof(err_));
  }
  dl_error err_;
  TempDir dir_;
};

TEST_F(TftpFileTest, RecvToFileSavesTheFile) {
  LogCapture capture;
  Peer peer;
  std::string content = pattern(3000);
  peer.run([&](Peer &p) { serve(p, content, 1432); });
  std::string local = dir_.file("out.bin");
  EXPECT_EQ(0, dl_tftp_recv_to_file("127.0.0.1", peer.port(), "/a/b.bin", local.c_str(), &err_));
  EXPECT_EQ(content, quarry_test::read_file(local));
  EXPECT_TRUE(capture.has(kTftp, kNotice, "recv: 3000 bytes\n")) << capture.text();
}

TEST_F(TftpFileTest, RecvToFileAllowsExactlyTheMaximum) {
  g_dl_cfg.max_file_size = 1100;
  Peer peer;
  std::string content = pattern(1100);
  peer.run([&](Peer &p) { serve(p, content, 0); });
  std::string local = dir_.file("out.bin");
  EXPECT_EQ(0, dl_tftp_recv_to_file("127.0.0.1", peer.port(), "f", local.c_str(), &err_));
  EXPECT_EQ(content, quarry_test::read_file(local));
}

TEST_F(TftpFileTest, RecvToFileAboveTheMaximumLeavesNoFile) {
  g_dl_cfg.max_file_size = 1099;
  LogCapture capture;
  Peer peer;
  peer.run([&](Peer &p) { serve(p, pattern(1100), 0); });
  std::string local = dir_.file("out.bin");
  EXPECT_EQ(-1, dl_tftp_recv_to_file("127.0.0.1", peer.port(), "f", local.c_str(), &err_));
  EXPECT_EQ(DL_ERR_MAX_SIZE, err_.code);
  EXPECT_STREQ("exceed max size 1099", err_.msg);
  EXPECT_TRUE(capture.mentions("exceed max size\n")) << capture.text();
  EXPECT_FALSE(quarry_test::file_exists(local));
}

TEST_F(TftpFileTest, RecvToFileThatCannotOpenTheLocalFile) {
  LogCapture capture;
  Peer peer;
  peer.run([&](Peer &p) { serve(p, "abc", 0); });
  std::string local = dir_.file("missing/out.bin");
  EXPECT_EQ(-1, dl_tftp_recv_to_file("127.0.0.1", peer.port(), "f", local.c_str(), &err_));
  EXPECT_EQ(0, err_.code);
  EXPECT_TRUE(capture.mentions("Can't open " + local + "\n")) << capture.text();
}

TEST_F(TftpFileTest, SendFileExactMultipleEndsWithTheLastFullBlock) {
  LogCapture capture;
  Peer peer;
  std::string content = pattern(1024);
  std::string got;
  peer.run([&](Peer &p) { got = take_upload(p, 0); });
  std::string local = dir_.write("up.bin", content);
  EXPECT_EQ(0, dl_tftp_send_file("127.0.0.1", peer.port(), "/in/up.bin", local.c_str(), &err_));
  peer.join();
  EXPECT_EQ(content, got);
  ASSERT_EQ(3u, peer.received.size());
  EXPECT_EQ(request(2, "in/up.bin"), peer.received[0]);
  EXPECT_EQ(data(2, content.substr(512)), peer.received[2]);
  EXPECT_TRUE(capture.has(kTftp, kNotice, "send: 1024 bytes\n")) << capture.text();
  EXPECT_TRUE(capture.has(kTftp, kNotice, "tftp open success\n"));
}

TEST_F(TftpFileTest, SendFileUsesNegotiatedBlksizeAndLocalName) {
  Peer peer;
  std::string content = pattern(2000);
  std::string got;
  peer.run([&](Peer &p) { got = take_upload(p, 1432); });
  std::string local = dir_.write("local.cfg", content);
  EXPECT_EQ(0, dl_tftp_send_file("127.0.0.1", peer.port(), nullptr, local.c_str(), &err_));
  peer.join();
  EXPECT_EQ(content, got);
  ASSERT_EQ(3u, peer.received.size());
  EXPECT_EQ(request(2, "local.cfg"), peer.received[0]);
  EXPECT_EQ(4u + 1432u, peer.received[1].size());
}

TEST_F(TftpFileTest, SendFileOfAnEmptyFileSendsNoData) {
  LogCapture capture;
  Peer peer;
  peer.run([&](Peer &p) { take_upload(p, 0); });
  std::string local = dir_.write("empty", "");
  EXPECT_EQ(0, dl_tftp_send_file("127.0.0.1", peer.port(), "", local.c_str(), &err_));
  peer.join();
  ASSERT_EQ(1u, peer.received.size());
  EXPECT_EQ(request(2, "empty"), peer.received[0]);
  EXPECT_TRUE(capture.has(kTftp, kNotice, "send: 0 bytes\n")) << capture.text();
}

TEST_F(TftpFileTest, UploadWithoutAcksSendsEachBlockSixTimes) {
  Peer peer;
  peer.run([](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    p.send(ack(0));
    while (p.recv(&pkt, 500)) p.send(error(0, "junk"));
  });
  std::string local = dir_.write("f", pattern(600));
  EXPECT_EQ(0, dl_tftp_send_file("127.0.0.1", peer.port(), "f", local.c_str(), &err_));
  peer.join();
  ASSERT_EQ(13u, peer.received.size());
  for (size_t i = 1; i <= 6; ++i) EXPECT_EQ(data(1, pattern(512)), peer.received[i]);
  for (size_t i = 7; i <= 12; ++i) EXPECT_EQ(data(2, pattern(600).substr(512)), peer.received[i]);
}

TEST_F(TftpFileTest, UploadRefusesBadBlksize) {
  Peer peer;
  peer.run([](Peer &p) {
    std::string pkt;
    p.recv(&pkt);
    p.send(oack({"blksize", "1433"}));
    p.recv(&pkt, 2000);
  });
  std::string local = dir_.write("f", "abc");
  EXPECT_EQ(-1, dl_tftp_send_file("127.0.0.1", peer.port(), "f", local.c_str(), &err_));
  peer.join();
  EXPECT_EQ(DL_ERR_READ, err_.code);
  ASSERT_EQ(2u, peer.received.size());
  EXPECT_EQ(blksize_error(), peer.received[1]);
}

TEST_F(TftpFileTest, UploadOfAFileAboveTheMaximumIsRefused) {
  g_dl_cfg.max_file_size = 100;
  LogCapture capture;
  Peer peer;
  peer.run([](Peer &p) { take_upload(p, 0); });
  std::string local = dir_.write("f", pattern(101));
  EXPECT_EQ(-1, dl_tftp_send_file("127.0.0.1", peer.port(), "f", local.c_str(), &err_));
  peer.join();
  EXPECT_EQ(DL_ERR_MAX_SIZE, err_.code);
  EXPECT_TRUE(capture.mentions("Send file size larger than maxsize 100\n")) << capture.text();
  EXPECT_EQ(1u, peer.received.size());
}

// ---- the front door ----

TEST_F(TftpFileTest, DoorStreamsATftpUrl) {
  LogCapture capture;
  Peer peer;
  std::string content = pattern(900);
  peer.run([&](Peer &p) { serve(p, content, 0); });
  std::string url = "tftp://127.0.0.1:" + std::to_string(peer.port()) + "/d/f.txt";
  dl_request req{const_cast<char *>(url.c_str()), nullptr, nullptr, nullptr};
  dl_handle *h = nullptr;
  ASSERT_EQ(0, dl_open(&req, &h, nullptr, &err_));
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_TFTP), h->scheme);
  char buf[2048];
  std::string got;
  int n;
  while ((n = dl_read(h, buf, sizeof(buf), &err_)) > 0) got.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(0, n);
  dl_close(h);
  peer.join();
  EXPECT_EQ(content, got);
  EXPECT_EQ(request(1, "d/f.txt"), peer.received[0]);
  EXPECT_TRUE(capture.has(kCommon, kInfo, "Enter Func dl_open....\n")) << capture.text();
  EXPECT_TRUE(capture.has(kCommon, kInfo, "Enter Func dl_read....\n"));
  EXPECT_TRUE(capture.has(kCommon, kInfo, "Enter Func dl_close....\n"));
}

TEST_F(TftpFileTest, DoorSendsAUrlWithoutSchemeToTftp) {
  Peer peer;
  peer.run([&](Peer &p) { serve(p, "plain", 0); });
  std::string url = "127.0.0.1:" + std::to_string(peer.port()) + "/plain.txt";
  dl_request req{const_cast<char *>(url.c_str()), nullptr, nullptr, nullptr};
  std::string local = dir_.file("plain.txt");
  EXPECT_EQ(0, dl_download(&req, local.c_str(), nullptr, &err_));
  peer.join();
  EXPECT_EQ("plain", quarry_test::read_file(local));
  ASSERT_FALSE(peer.received.empty());
  EXPECT_EQ(request(1, "plain.txt"), peer.received[0]);
}

TEST_F(TftpFileTest, DoorReadWithZeroLengthIsRefused) {
  LogCapture capture;
  dl_handle h{DL_SCHEME_TFTP, nullptr};
  char buf[4];
  EXPECT_EQ(-1, dl_read(&h, buf, 0, &err_));
  EXPECT_TRUE(capture.has(kCommon, kError, "Invalid Param!\n")) << capture.text();
}

struct UploadCase {
  const char *url_path;
  const char *remote_name;
  const char *sent_name;
};

class DoorUpload : public TftpFileTest, public ::testing::WithParamInterface<UploadCase> {};

TEST_P(DoorUpload, FormsTheRemoteName) {
  LogCapture capture;
  Peer peer;
  std::string got;
  peer.run([&](Peer &p) { got = take_upload(p, 0); });
  TempDir home;
  std::string local = home.write("a.cfg", "cfg body");
  std::string url = "tftp://127.0.0.1:" + std::to_string(peer.port()) + GetParam().url_path;
  dl_request req{const_cast<char *>(url.c_str()), nullptr, nullptr, nullptr};
  EXPECT_EQ(0, dl_upload(&req, local.c_str(), GetParam().remote_name, nullptr, &err_, nullptr,
                         0, 0));
  peer.join();
  EXPECT_EQ("cfg body", got);
  ASSERT_FALSE(peer.received.empty());
  EXPECT_EQ(request(2, GetParam().sent_name), peer.received[0]);
  EXPECT_TRUE(capture.has(kCommon, kInfo, "Enter Func dl_upload....\n")) << capture.text();
  EXPECT_TRUE(capture.has(kCommon, kInfo, std::string("Uplaod path without filename is ") +
                                              GetParam().url_path + " \n"));
}
INSTANTIATE_TEST_SUITE_P(Paths, DoorUpload,
                         ::testing::Values(UploadCase{"/cfg/x.cfg", "", "cfg/a.cfg"},
                                           UploadCase{"/cfg/", nullptr, "cfg/a.cfg"},
                                           UploadCase{"/cfg", "", "cfga.cfg"},
                                           UploadCase{"/cfg/", "new.cfg", "cfg/new.cfg"}));

}  // namespace

// The TFTP client against real servers, black box: every case runs against
// tftpd-hpa and atftpd; IPv6 against tftpd-hpa, the one listening on ::1.
// Uploads are checked byte for byte in the server's directory.
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>

#include <string>

#include "quarry.h"
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

const unsigned kTftp = DL_LOG_MODULE_TFTP;
const int kNotice = 5;
const int kInfo = 6;
const int kBlock = 1432;  // the block size the client asks for

struct TftpServer {
  const char *name;
  const char *big_file;  // in the server's root
  const char *hello;     // the content of its hello.txt
};

const TftpServer kServers[] = {
    {"tftpd", "3M.bin", "tftp hello\n"},
    {"atftpd", "1M.bin", "atftp hello\n"},
};

void apply_settings(uint16_t ipv6) {
  dl_config_init();
  pthread_mutex_lock(&g_dl_cfg.cfg_lock);
  g_dl_cfg.timeout_s = 1;
  g_dl_cfg.max_file_size = 100u << 20;
  g_dl_cfg.ipv6_enable = ipv6;
  pthread_mutex_unlock(&g_dl_cfg.cfg_lock);
}

class TftpServers : public ::testing::TestWithParam<TftpServer> {
 protected:
  void SetUp() override {
    apply_settings(0);
    memset(&err_, 0, sizeof(err_));
  }
  void TearDown() override { apply_settings(0); }
  RealServer &server() { return RealServer::shared(GetParam().name); }
  int port() { return server().port("tftp"); }
  // Uploads |content| as |remote| and returns what the server stored.
  std::string upload(const std::string &remote, const std::string &content) {
    std::string local = dir_.write("up.bin", content);
    int rc = dl_tftp_send_file("127.0.0.1", port(), remote.c_str(), local.c_str(), &err_);
    EXPECT_EQ(0, rc) << err_.code << " " << err_.msg;
    return settled_content(server().path("root/" + remote), content.size());
  }
  dl_error err_;
  TempDir dir_;
};

TEST_P(TftpServers, DownloadIsByteForByte) {
  QUARRY_REQUIRE_SERVER(server());
  std::string want =
      quarry_test::read_file(server().path(std::string("root/") + GetParam().big_file));
  ASSERT_GT(want.size(), 100000u);
  std::string local = dir_.file("big.bin");
  LogCapture capture;
  ASSERT_EQ(
      0, dl_tftp_recv_to_file("127.0.0.1", port(), (std::string("/") + GetParam().big_file).c_str(),
                              local.c_str(), &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(quarry_test::read_file(local) == want) << "the saved file differs";
  EXPECT_TRUE(capture.has(kTftp, kInfo, "recv OACK\n")) << capture.text();
  EXPECT_TRUE(capture.has(kTftp, kInfo, "using blksize 1432\n")) << capture.text();
  EXPECT_TRUE(capture.has(kTftp, kNotice, "recv: " + std::to_string(want.size()) + " bytes\n"))
      << capture.text();
}

TEST_P(TftpServers, SmallFileArrivesInOneReadThenEndOfFile) {
  QUARRY_REQUIRE_SERVER(server());
  dl_tftp_conn *conn = nullptr;
  ASSERT_EQ(0, dl_tftp_open(&conn, "127.0.0.1", port(), "hello.txt", &err_)) << err_.msg;
  char buf[64];
  int n = dl_tftp_read(conn, buf, sizeof(buf), &err_);
  EXPECT_EQ(std::string(GetParam().hello), std::string(buf, n > 0 ? static_cast<size_t>(n) : 0));
  EXPECT_EQ(0, dl_tftp_read(conn, buf, sizeof(buf), &err_));
  dl_tftp_close(conn);
}

TEST_P(TftpServers, MissingFileIsAReadErrorAndLeavesNoFile) {
  QUARRY_REQUIRE_SERVER(server());
  std::string local = dir_.file("nothing");
  EXPECT_EQ(-1, dl_tftp_recv_to_file("127.0.0.1", port(), "no-such-file", local.c_str(), &err_));
  EXPECT_EQ(DL_ERR_READ, err_.code);
  EXPECT_STREQ("Read Error", err_.msg);
  EXPECT_FALSE(quarry_test::file_exists(local));
}

TEST_P(TftpServers, UploadIsStoredByteForByte) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(100000, 1);  // ends with a short block
  ASSERT_NE(0u, content.size() % kBlock);
  LogCapture capture;
  EXPECT_TRUE(upload(fresh_name("tup"), content) == content) << "the stored file differs";
  EXPECT_TRUE(capture.has(kTftp, kNotice, "send: 100000 bytes\n")) << capture.text();
}

// The client ends such a file with its last full block and sends no empty
// block after it, so the server learns of the end only by its own time-out.
TEST_P(TftpServers, UploadOfWholeBlocksIsStoredWhole) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(kBlock * 40, 2);
  EXPECT_TRUE(upload(fresh_name("tblk"), content) == content) << "the stored file differs";
}

TEST_P(TftpServers, UploadReadsBackThroughTheClient) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(5000, 3);
  std::string remote = fresh_name("tback");
  ASSERT_TRUE(upload(remote, content) == content);
  std::string back = dir_.file("back.bin");
  ASSERT_EQ(0, dl_tftp_recv_to_file("127.0.0.1", port(), remote.c_str(), back.c_str(), &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(quarry_test::read_file(back) == content) << "the read-back differs";
}

TEST_P(TftpServers, FrontDoorUploadsAndDownloads) {
  QUARRY_REQUIRE_SERVER(server());
  std::string content = binary_content(3000, 4);
  std::string local = dir_.write("door.bin", content);
  std::string remote = fresh_name("tdoor");
  std::string url = "tftp://127.0.0.1:" + std::to_string(port()) + "/";
  dl_request req{const_cast<char *>(url.c_str()), nullptr, nullptr, nullptr};
  ASSERT_EQ(0, dl_upload(&req, local.c_str(), remote.c_str(), nullptr, &err_, nullptr, 0, 0))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(settled_content(server().path("root/" + remote), content.size()) == content);

  EXPECT_TRUE(door_fetch(url + remote, dir_.file("door_back.bin"), &err_) == content)
      << "the download differs: " << err_.code << " " << err_.msg;
}

INSTANTIATE_TEST_SUITE_P(Real, TftpServers, ::testing::ValuesIn(kServers),
                         acceptance::ServerName());

// ---- IPv6 (tftpd-hpa) ----

class TftpServersV6 : public ::testing::Test {
 protected:
  void SetUp() override {
    apply_settings(1);
    memset(&err_, 0, sizeof(err_));
  }
  void TearDown() override { apply_settings(0); }
  dl_error err_;
  TempDir dir_;
};

TEST_F(TftpServersV6, DownloadAndUploadOverIpv6) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  QUARRY_REQUIRE_IPV6(tftpd);
  int port = tftpd.port("tftp6");
  std::string local = dir_.file("3M.bin");
  ASSERT_EQ(0, dl_tftp_recv_to_file("::1", port, "3M.bin", local.c_str(), &err_))
      << err_.code << " " << err_.msg;
  EXPECT_TRUE(quarry_test::read_file(local) == quarry_test::read_file(tftpd.path("root/3M.bin")));

  for (size_t size : {size_t{70000}, size_t{kBlock * 10}}) {
    std::string content = binary_content(size, 5);
    std::string up = dir_.write("up6.bin", content);
    std::string remote = fresh_name("tv6");
    ASSERT_EQ(0, dl_tftp_send_file("::1", port, remote.c_str(), up.c_str(), &err_))
        << err_.code << " " << err_.msg;
    EXPECT_TRUE(settled_content(tftpd.path("root/" + remote), size) == content)
        << "the stored file of " << size << " bytes differs";
  }
}

}  // namespace

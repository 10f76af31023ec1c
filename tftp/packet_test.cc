// Request building and the OACK's block-size answer, without a network
// peer: the handle's socket is a loopback UDP socket whose sends go
// nowhere that matters.
#include "tftp/tftp.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;
namespace t = quarry::tftp;

std::string request(uint16_t opcode, const char *name) {
  uint8_t out[t::kRequestArea];
  size_t n = t::build_request(opcode, name, out);
  return std::string(reinterpret_cast<char *>(out), n);
}

TEST(TftpRequest, ReadRequestBytes) {
  EXPECT_EQ(request(t::kRrq, "/a/b.txt"), std::string("\0\1a/b.txt\0octet\0blksize\0" "1432\0", 29));
  EXPECT_EQ(request(t::kWrq, "c"), std::string("\0\2c\0octet\0blksize\0" "1432\0", 23));
  EXPECT_EQ(request(t::kRrq, "//d"), std::string("\0\1/d\0octet\0blksize\0" "1432\0", 24));
  EXPECT_EQ(request(t::kRrq, ""), std::string("\0\1\0octet\0blksize\0" "1432\0", 22));
}

TEST(TftpRequest, LongestNameFitsTheArea) {
  std::string name(t::kMaxRemoteName, 'n');
  EXPECT_EQ(request(t::kRrq, name.c_str()).size(), 2 + 255 + 1 + 19u);
}

class TftpNegotiate : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    capture_ = std::make_unique<LogCapture>();
    conn_ = t::conn_new(1);
    conn_->socket = socket(AF_INET, SOCK_DGRAM, 0);
    conn_->server.in4.sin_family = AF_INET;
    conn_->server.in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    conn_->server.in4.sin_port = htons(9);  // discard
  }
  void TearDown() override {
    t::conn_free(conn_);
    capture_.reset();
    dl_exit();
  }
  bool negotiate(const std::string &options) {
    std::string pkt = std::string("\0\6", 2) + options;
    return t::negotiate(conn_, reinterpret_cast<const uint8_t *>(pkt.data()), pkt.size());
  }

  std::unique_ptr<LogCapture> capture_;
  dl_tftp_conn *conn_ = nullptr;
};

TEST_F(TftpNegotiate, FindsBlksizeAmongOtherOptions) {
  EXPECT_TRUE(negotiate(std::string("tsize\0" "99\0BLKSIZE\0" "600\0timeout\0" "3\0", 29)));
  EXPECT_EQ(conn_->blksize, 600);
  EXPECT_TRUE(capture_->has(4, 6, "using blksize 600\n"));
}

TEST_F(TftpNegotiate, NameInAValuePlaceIsNoOption) {
  conn_->blksize = 1432;
  EXPECT_TRUE(negotiate(std::string("x\0blksize\0", 10)));
  EXPECT_EQ(conn_->blksize, 512);
  EXPECT_TRUE(capture_->has(4, 6, "server only supports blocksize of 512\n"));
}

TEST_F(TftpNegotiate, ValueCutOffByThePacketEnd) {
  EXPECT_TRUE(negotiate(std::string("blksize\0" "1000", 12)));
  EXPECT_EQ(conn_->blksize, 1000);
}

TEST_F(TftpNegotiate, MissingValueIsABadBlocksize) {
  EXPECT_FALSE(negotiate(std::string("blksize\0", 8)));
  EXPECT_TRUE(capture_->has(4, 3, "bad blocksize ''\n"));
  EXPECT_EQ(conn_->blksize, 512);
}

TEST_F(TftpNegotiate, LeadingDigitsAreTheValue) {
  EXPECT_TRUE(negotiate(std::string("blksize\0" "1024x\0", 14)));
  EXPECT_EQ(conn_->blksize, 1024);
  EXPECT_FALSE(negotiate(std::string("blksize\0" "-1\0", 11)));
  EXPECT_TRUE(capture_->has(4, 3, "bad blocksize '-1'\n"));
}

TEST_F(TftpNegotiate, EmptyOackUses512) {
  EXPECT_TRUE(negotiate(""));
  EXPECT_EQ(conn_->blksize, 512);
}

}  // namespace

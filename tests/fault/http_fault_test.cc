// Faults of an HTTP server seen through dl_download: resets and closes in
// the head and the body, a truncated chunk, silent and slow servers, and
// endless header lines and header blocks. Each download ends inside the
// time-out with a negative result, no file and no descriptor left.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/ftp/ftp_peer.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace quarry_test {
namespace {

constexpr uint32_t kTimeoutS = 1;
// A slow server's gap between bytes, inside the time-out, and one past it.
constexpr size_t kSlowGapMs = 400;
constexpr size_t kTooSlowGapMs = 1600;
constexpr char kHead[] = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n";

class HttpFault : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    set_number(DL_OPT_TIMEOUT, kTimeoutS);
    set_number(DL_OPT_IPV6_ENABLE, 0);
    capture_ = std::make_unique<LogCapture>();
    fds_before_ = open_descriptors();
    target_ = dir_.file("got.bin");
  }
  void TearDown() override {
    capture_.reset();
    dl_exit();
  }
  // Plays |script| for the request and downloads; returns the result.
  int download(Script script) {
    peer_.add(Script{read_until("\r\n\r\n")} + script);
    peer_.start();
    std::string url = "http://127.0.0.1:" + std::to_string(peer_.port()) + "/got.bin";
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    char redirect[512] = {};
    start_ = std::chrono::steady_clock::now();
    int rc = dl_download(&req, target_.c_str(), redirect, &err_);
    elapsed_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    peer_.wait(3000);
    return rc;
  }
  // A failed download: -1 with |code| in the error report, no file, no
  // descriptor left, and over within |limit_s| seconds.
  void expect_clean_failure(int rc, int code, double limit_s) {
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(err_.code, code);
    EXPECT_FALSE(file_exists(target_));
    EXPECT_LT(elapsed_, limit_s);
    EXPECT_EQ(open_descriptors(), fds_before_);
  }
  // |text| one byte at a time, |gap_ms| apart.
  static Script slowly(const std::string &text, size_t gap_ms) {
    Script s;
    for (char c : text) {
      s.push_back(sleep_ms(gap_ms));
      s.push_back(send_bytes(std::string(1, c)));
    }
    return s;
  }

  TcpPeer peer_;
  std::unique_ptr<LogCapture> capture_;
  TempDir dir_;
  std::string target_;
  dl_error err_ = {};
  int fds_before_ = 0;
  std::chrono::steady_clock::time_point start_;
  double elapsed_ = 0;
};

TEST_F(HttpFault, ResetInTheStatusLine) {
  expect_clean_failure(download({send_bytes("HTTP/1.1 2"), sleep_ms(50), reset_conn()}),
                       DL_ERR_READ, 1.5);
}

TEST_F(HttpFault, ResetInTheHeaderBlock) {
  expect_clean_failure(
      download({send_bytes("HTTP/1.1 200 OK\r\nContent-Le"), sleep_ms(50), reset_conn()}),
      DL_ERR_READ, 1.5);
}

TEST_F(HttpFault, ResetInTheBody) {
  expect_clean_failure(
      download({send_bytes(std::string(kHead) + "ab"), sleep_ms(50), reset_conn()}), DL_ERR_FAIL,
      1.5);
}

TEST_F(HttpFault, SilentServer) {
  expect_clean_failure(download({sleep_ms(1500), close_conn()}), DL_ERR_READ, 1.6);
  EXPECT_GE(elapsed_, 0.9);
}

TEST_F(HttpFault, ServerFallsSilentInTheBody) {
  expect_clean_failure(
      download({send_bytes(std::string(kHead) + "ab"), sleep_ms(1500), close_conn()}), DL_ERR_READ,
      1.6);
  EXPECT_GE(elapsed_, 0.9);
}

TEST_F(HttpFault, SlowServerInsideTheTimeOutIsServed) {
  Script s = Script{send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 4\r")} +
             slowly("\n\r\n", kSlowGapMs) + slowly("abcd", kSlowGapMs);
  ASSERT_EQ(download(s), 0) << err_.msg;
  EXPECT_EQ(read_file(target_), "abcd");
  EXPECT_EQ(open_descriptors(), fds_before_);
}

TEST_F(HttpFault, ServerSlowerThanTheTimeOut) {
  expect_clean_failure(download(Script{send_bytes(std::string(kHead) + "a")} +
                                slowly("b", kTooSlowGapMs) + Script{close_conn()}),
                       DL_ERR_READ, 1.6);
}

TEST_F(HttpFault, EndlessHeaderLine) {
  expect_clean_failure(
      download({send_bytes("HTTP/1.1 200 OK\r\nX-Long: " + std::string(200000, 'a')),
                sleep_ms(1500), close_conn()}),
      DL_ERR_READ, 1.6);
}

TEST_F(HttpFault, EndlessHeaders) {
  std::string lines;
  for (int i = 0; i < 20000; ++i) lines += "X-Header-" + std::to_string(i) + ": value\r\n";
  expect_clean_failure(
      download({send_bytes("HTTP/1.1 200 OK\r\n" + lines), sleep_ms(1500), close_conn()}),
      DL_ERR_READ, 1.6);
}

// A response the server cuts short is never saved as if it were whole.
TEST_F(HttpFault, HeadCutShortByTheServerClosing) {
  expect_clean_failure(
      download({send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n"), close_conn()}), DL_ERR_RECV,
      1.5);
}

TEST_F(HttpFault, TruncatedChunk) {
  expect_clean_failure(
      download({send_bytes("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\nabc"),
                close_conn()}),
      DL_ERR_RECV, 1.5);
}

}  // namespace
}  // namespace quarry_test

// What the TFTP tests share: an initialised library with 1 s time-outs
// and every log line captured.
#ifndef QUARRY_TESTS_TFTP_TFTP_TEST_ENV_H
#define QUARRY_TESTS_TFTP_TFTP_TEST_ENV_H

#include <gtest/gtest.h>
#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>

#include "quarry.h"
#include "tests/support/log_capture.h"
#include "tests/tftp/tftp_peer.h"

namespace quarry_test {

constexpr unsigned kTftpModule = 4;

class TftpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    set_option(DL_OPT_TIMEOUT, 1);
    capture_ = std::make_unique<LogCapture>();
  }
  void TearDown() override {
    capture_.reset();
    dl_exit();
  }
  static void set_option(int id, uint32_t value) { ASSERT_EQ(dl_set_option(id, &value), 0); }
  // Whether the TFTP module logged exactly |line| at |level|.
  bool logged(int level, const std::string &line) const {
    return capture_->has(kTftpModule, level, line);
  }
  int count(int level, const std::string &line) const {
    return capture_->count(kTftpModule, level, line);
  }

  std::unique_ptr<LogCapture> capture_;
  dl_error err_ = {};
};

// Seconds since |start|.
inline double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace quarry_test

#endif  // QUARRY_TESTS_TFTP_TFTP_TEST_ENV_H

// Test set-up shared by the URL parser tests: an initialised settings
// record whose ipv6_enable a test can switch, and helpers for the exact
// log text a parse should leave.
#ifndef QUARRY_URL_URL_TEST_ENV_H
#define QUARRY_URL_URL_TEST_ENV_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace quarry_test {

class UrlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_exit();
    dl_config_init();
  }
  void TearDown() override {
    dl_exit();
    libq_log_exit();
  }
  static void set_ipv6(bool on) {
    uint32_t value = on ? 1 : 0;
    ASSERT_EQ(dl_set_option(DL_OPT_IPV6_ENABLE, &value), 0);
  }
};

// Frees what url_split left in |parts|, after success or failure alike.
inline void free_parts(dl_url_parts *parts) {
  free(parts->host);
  free(parts->path);
  free(parts->user);
  free(parts->password);
}

// One DCMN log line: its level and text.
using LogLine = std::pair<int, std::string>;

// The text a file log holds after exactly |lines| of module DCMN.
inline std::string dcmn_lines(const std::vector<LogLine> &lines) {
  std::string text;
  for (const auto &line : lines) text += LogCapture::line(2, line.first, line.second);
  return text;
}

}  // namespace quarry_test

#endif  // QUARRY_URL_URL_TEST_ENV_H

// Helpers shared by the HTTP tests against real servers: a library set up
// per test and the calls a caller makes.
#ifndef QUARRY_TESTS_REAL_HTTP_REAL_SUPPORT_H
#define QUARRY_TESTS_REAL_HTTP_REAL_SUPPORT_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "quarry.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace quarry_test {

class HttpRealTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    uint32_t timeout = 10;
    dl_set_option(DL_OPT_TIMEOUT, &timeout);
    log_ = std::make_unique<LogCapture>();
  }
  void TearDown() override {
    log_.reset();
    dl_exit();
  }

  // dl_download of |url| into |file| (in the test's scratch directory);
  // returns the result and leaves the report in err_.
  int download(const std::string &url, const std::string &file, const char *user = nullptr,
               const char *password = nullptr) {
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    req.user = const_cast<char *>(user);
    req.password = const_cast<char *>(password);
    redirect_[0] = '\0';
    err_ = {};
    return dl_download(&req, dir_.file(file).c_str(), redirect_, &err_);
  }

  // dl_upload of |content| (written to a scratch file named |name|).
  int upload(const std::string &url, const std::string &name, const std::string &content,
             int mode, const std::string &headers = "", const char *user = nullptr,
             const char *password = nullptr) {
    std::string path = dir_.write(name, content);
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    req.user = const_cast<char *>(user);
    req.password = const_cast<char *>(password);
    err_ = {};
    return dl_upload(&req, path.c_str(), nullptr, redirect_, &err_, headers.c_str(), mode, 0);
  }

  // Reads |url| through dl_open and dl_read in pieces of 7000 bytes;
  // returns the body, or "" (with a test failure) when the open fails.
  std::string stream(const std::string &url) {
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    dl_handle *h = nullptr;
    err_ = {};
    EXPECT_EQ(dl_open(&req, &h, redirect_, &err_), 0) << err_.msg;
    if (h == nullptr) return "";
    std::string body;
    char buf[7000];
    int n;
    while ((n = dl_read(h, buf, sizeof(buf), &err_)) > 0) body.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(n, 0) << err_.msg;
    dl_close(h);
    return body;
  }

  std::string saved(const std::string &file) { return read_file(dir_.file(file)); }
  bool exists(const std::string &file) { return file_exists(dir_.file(file)); }

  TempDir dir_;
  std::unique_ptr<LogCapture> log_;
  char redirect_[512] = "";
  dl_error err_ = {};
};

}  // namespace quarry_test

#endif  // QUARRY_TESTS_REAL_HTTP_REAL_SUPPORT_H

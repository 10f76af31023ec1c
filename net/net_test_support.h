// What the net tests share: a fixture with a fresh settings record and a
// log capture, and the log lines of the connect code.
#ifndef QUARRY_NET_NET_TEST_SUPPORT_H
#define QUARRY_NET_NET_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace quarry_test {

constexpr unsigned kDcmn = 2;
constexpr int kError = 3;
constexpr int kNotice = 5;
constexpr int kInfo = 6;

// Starts every test from the defaults, capturing the log from then on.
class NetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_exit();
    dl_config_init();
    log_ = std::make_unique<LogCapture>();
  }
  void TearDown() override {
    log_.reset();
    dl_exit();
  }
  LogCapture &log() { return *log_; }

 private:
  std::unique_ptr<LogCapture> log_;
};

inline std::string connecting_host_line(const std::string &host, int port) {
  return "Connecting " + host + ":" + std::to_string(port) + "\n";
}

inline std::string connecting_ip_line(const std::string &ip, int port) {
  return "Connecting IP = " + ip + ", Port = " + std::to_string(port) + "\n";
}

inline std::string connect_failed_line(int ret, int err, int timeout_s, int so_error) {
  return "Connect Failed! ret " + std::to_string(ret) + ", errno " + std::to_string(err) +
         " timeout " + std::to_string(timeout_s) + " error " + std::to_string(so_error) + "\n";
}

inline std::string gai_line(int code) {
  return std::string("getaddrinfo: ") + gai_strerror(code) + "\n";
}

// The peer address of a connected socket; family AF_UNSPEC when there is
// none.
inline sockaddr_storage peer_of(int fd) {
  sockaddr_storage ss = {};
  socklen_t len = sizeof(ss);
  if (getpeername(fd, reinterpret_cast<sockaddr *>(&ss), &len) != 0) ss.ss_family = AF_UNSPEC;
  return ss;
}

inline int peer_family(int fd) { return peer_of(fd).ss_family; }

inline int peer_port(int fd) {
  sockaddr_storage ss = peer_of(fd);
  return ss.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port)
                                  : ntohs(reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
}

// The lowest descriptor number not in use: it moves when a test leaks one.
inline int lowest_free_fd() {
  int fd = dup(0);
  if (fd >= 0) close(fd);
  return fd;
}

}  // namespace quarry_test

#endif  // QUARRY_NET_NET_TEST_SUPPORT_H

// Test helpers of the HTTP client: a live handle whose socket is one end
// of a socket pair, the other end played by the test, and a URL record
// made of borrowed texts.
#ifndef QUARRY_HTTP_HTTP_TEST_SUPPORT_H
#define QUARRY_HTTP_HTTP_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "http/http_conn.h"
#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace quarry_http_test {

// An initialised settings record, and a log capture made after it since
// initialising points the log back at the system log.
class HttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_exit();
    dl_config_init();
    capture_ = std::make_unique<quarry_test::LogCapture>();
  }
  void TearDown() override {
    capture_.reset();
    dl_exit();
    libq_log_exit();
  }
  static void set_number(int id, uint32_t value) { ASSERT_EQ(dl_set_option(id, &value), 0); }

  std::unique_ptr<quarry_test::LogCapture> capture_;
};

// A zero-filled live handle, reset and freed at the end of the scope.
class Handle {
 public:
  Handle() {
    conn_ = static_cast<dl_http_conn *>(calloc(1, sizeof(dl_http_conn)));
    conn_->magic = DL_HTTP_MAGIC;
  }
  ~Handle() {
    http_reset(conn_);
    free(conn_);
  }
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;
  dl_http_conn *get() const { return conn_; }
  dl_http_conn *operator->() const { return conn_; }

 private:
  dl_http_conn *conn_;
};

// A handle connected to the test through a socket pair.
class PairedHandle : public Handle {
 public:
  PairedHandle() {
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
      get()->sock = fds[0];
      peer_ = fds[1];
    }
  }
  ~PairedHandle() { close_peer(); }

  // What the server says.
  void say(const std::string &bytes) const {
    size_t done = 0;
    while (done < bytes.size()) {
      ssize_t n = send(peer_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return;
      done += static_cast<size_t>(n);
    }
  }
  void close_peer() {
    if (peer_ >= 0) close(peer_);
    peer_ = -1;
  }

  // Exactly |n| bytes the library wrote (fewer if it stopped writing).
  std::string heard(size_t n) const {
    std::string out;
    char buf[65536];
    while (out.size() < n) {
      pollfd pfd = {peer_, POLLIN, 0};
      if (poll(&pfd, 1, kWaitMs) <= 0) break;
      size_t want = n - out.size() < sizeof(buf) ? n - out.size() : sizeof(buf);
      ssize_t got = recv(peer_, buf, want, 0);
      if (got <= 0) break;
      out.append(buf, static_cast<size_t>(got));
    }
    return out;
  }
  // Everything the library has written so far, without waiting.
  std::string heard_all() const {
    std::string out;
    char buf[65536];
    ssize_t got;
    while ((got = recv(peer_, buf, sizeof(buf), MSG_DONTWAIT)) > 0) {
      out.append(buf, static_cast<size_t>(got));
    }
    return out;
  }
  // Whether the library wrote nothing beyond what was heard.
  bool silent() const {
    char c;
    return recv(peer_, &c, 1, MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
  // How many bytes the library has not handed out: those held in the
  // handle's receive buffer and those still in the socket.
  size_t unread() const {
    char buf[65536];
    ssize_t n = recv(get()->sock, buf, sizeof(buf), MSG_PEEK | MSG_DONTWAIT);
    size_t held = get()->rx != nullptr ? get()->rx->end - get()->rx->start : 0;
    return held + (n > 0 ? static_cast<size_t>(n) : 0);
  }
  int peer() const { return peer_; }

 private:
  static constexpr int kWaitMs = 5000;
  int peer_ = -1;
};

// A blocking TCP connection to 127.0.0.1:|port|, or -1.
inline int connect_loopback(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in a;
  memset(&a, 0, sizeof(a));
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// A URL record over borrowed texts; nothing in it is freed.
inline dl_url url_of(uint32_t scheme, uint32_t type, const char *host, int port, const char *path,
                     bool ipv6 = false, const char *user = nullptr,
                     const char *password = nullptr) {
  dl_url u;
  memset(&u, 0, sizeof(u));
  u.scheme = scheme;
  u.request_type = type;
  u.is_ipv6 = ipv6 ? 1 : 0;
  u.host = const_cast<char *>(host);
  u.path = const_cast<char *>(path);
  u.port = port;
  u.user = const_cast<char *>(user);
  u.password = const_cast<char *>(password);
  return u;
}

// The request record, freed at the end of the scope.
class Request {
 public:
  Request() : req_(http_request_new()) {}
  ~Request() { http_request_free(req_); }
  Request(const Request &) = delete;
  Request &operator=(const Request &) = delete;
  dl_http_request *get() const { return req_; }
  dl_http_request *operator->() const { return req_; }

 private:
  dl_http_request *req_;
};

}  // namespace quarry_http_test

#endif  // QUARRY_HTTP_HTTP_TEST_SUPPORT_H

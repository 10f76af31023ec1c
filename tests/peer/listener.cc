#include "tests/peer/listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quarry_test {

namespace {

// Enough connects to fill any backlog a test asks for.
constexpr int kMaxFillers = 64;
// How long a filler may take to be answered before the backlog counts as
// full.
constexpr int kAnswerWaitMs = 300;

socklen_t loopback_address(bool ipv6, uint16_t port, sockaddr_storage *ss) {
  memset(ss, 0, sizeof(*ss));
  if (ipv6) {
    auto *a6 = reinterpret_cast<sockaddr_in6 *>(ss);
    a6->sin6_family = AF_INET6;
    a6->sin6_addr = in6addr_loopback;
    a6->sin6_port = htons(port);
    return sizeof(*a6);
  }
  auto *a4 = reinterpret_cast<sockaddr_in *>(ss);
  a4->sin_family = AF_INET;
  a4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a4->sin_port = htons(port);
  return sizeof(*a4);
}

bool wait_for(int fd, short events, int timeout_ms) {
  pollfd pfd = {fd, events, 0};
  return poll(&pfd, 1, timeout_ms) > 0;
}

}  // namespace

int bind_loopback(int type, bool ipv6, uint16_t *port) {
  int fd = socket(ipv6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  // Only TCP needs it (a port in TIME_WAIT); on UDP it would let the
  // kernel hand out a port that another reusing socket already holds.
  if (type == SOCK_STREAM) {
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  }
  sockaddr_storage ss;
  socklen_t len = loopback_address(ipv6, *port, &ss);
  if (bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0) {
    close(fd);
    return -1;
  }
  len = sizeof(ss);
  getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len);
  *port = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port
                     : reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
  return fd;
}

Listener::Listener(bool ipv6, uint16_t port, int backlog) : ipv6_(ipv6), port_(port) {
  fd_ = bind_loopback(SOCK_STREAM, ipv6, &port_);
  if (fd_ >= 0 && listen(fd_, backlog) != 0) {
    close(fd_);
    fd_ = -1;
  }
}

Listener::~Listener() {
  for (int fd : fillers_) close(fd);
  if (fd_ >= 0) close(fd_);
}

int Listener::accept_within(int timeout_ms) {
  if (fd_ < 0 || !wait_for(fd_, POLLIN, timeout_ms)) return -1;
  return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
}

bool Listener::fill_backlog() {
  if (fd_ < 0) return false;
  sockaddr_storage ss;
  socklen_t len = loopback_address(ipv6_, port_, &ss);
  for (int i = 0; i < kMaxFillers; ++i) {
    int fd = socket(ss.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    fillers_.push_back(fd);
    if (connect(fd, reinterpret_cast<sockaddr *>(&ss), len) == 0) continue;
    if (errno != EINPROGRESS) return false;
    if (!wait_for(fd, POLLOUT, kAnswerWaitMs)) return true;
  }
  return false;
}

uint16_t closed_port(bool ipv6) {
  uint16_t port = 0;
  int fd = bind_loopback(SOCK_STREAM, ipv6, &port);
  if (fd >= 0) close(fd);
  return port;
}

}  // namespace quarry_test

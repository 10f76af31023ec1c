// A loopback TCP listener that accepts nothing on its own: connections
// complete into its backlog, where the test picks them up, or, once the
// backlog is full, wait unanswered.
#ifndef QUARRY_TESTS_PEER_LISTENER_H
#define QUARRY_TESTS_PEER_LISTENER_H

#include <stdint.h>

#include <vector>

namespace quarry_test {

class Listener {
 public:
  // Listens on 127.0.0.1 (or ::1) on |port| (0: a free one).
  explicit Listener(bool ipv6 = false, uint16_t port = 0, int backlog = 16);
  ~Listener();
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

  bool ok() const { return fd_ >= 0; }
  uint16_t port() const { return port_; }

  // Accepts one connection, waiting up to |timeout_ms| for it. Returns its
  // descriptor (the caller closes it), or -1 when none came.
  int accept_within(int timeout_ms);

  // Connects from the same host until a connect goes unanswered, so that
  // every later connect waits too. False when the backlog never filled.
  bool fill_backlog();

 private:
  int fd_ = -1;
  bool ipv6_ = false;
  uint16_t port_ = 0;
  std::vector<int> fillers_;
};

// A loopback port on which nothing listens.
uint16_t closed_port(bool ipv6 = false);

// Binds a socket of |type| to the loopback address of the family on
// |*port| (0: a free one) and stores the port bound. Returns the socket,
// or -1.
int bind_loopback(int type, bool ipv6, uint16_t *port);

}  // namespace quarry_test

#endif  // QUARRY_TESTS_PEER_LISTENER_H

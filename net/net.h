// net/: TCP connects bounded by a time-out, host look-up, the readiness
// wait every client uses before it reads, and the own DNS stub resolver
// with its configuration files. The functions themselves are declared in
// quarry.h and quarry_internal.h; this header adds what the layers above
// share when they use them.
#ifndef QUARRY_NET_NET_H
#define QUARRY_NET_NET_H

#include <unistd.h>

#include "core/core.h"

namespace quarry {

// Mode bits of dl_select.
constexpr int kWaitReadable = 1;
constexpr int kWaitWritable = 2;

constexpr long long kMsPerSecond = 1000;

// Milliseconds on CLOCK_MONOTONIC, for deadlines that the wall clock's
// steps cannot move.
long long monotonic_ms();

// Waits until |fd| is ready in a direction of |mode| (both bits: either)
// or |timeout_ms| have passed, whatever the descriptor's number. Signals
// neither end nor stretch the wait. Returns what select returns for one
// descriptor: the number of directions ready, 0 when the time ran out, -1
// with errno (EBADF for a negative or closed descriptor, EINVAL for a
// negative time-out). Without a direction it only sleeps.
int wait_ready(int fd, int mode, long long timeout_ms);
// The same wait, but a signal ends it: -1 with errno EINTR.
int wait_once(int fd, int mode, long long timeout_ms);

// DNS query types and class the connect code asks the own resolver for.
constexpr int kDnsTypeA = 1;
constexpr int kDnsTypeAAAA = 28;
constexpr int kDnsClassIn = 1;

// Owns one file descriptor and closes it, unless released.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd &) = delete;
  UniqueFd &operator=(const UniqueFd &) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

}  // namespace quarry

#endif  // QUARRY_NET_NET_H

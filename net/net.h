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

// The readiness wait every client uses before it reads, and the clock its
// deadlines are kept on.
#include <errno.h>
#include <poll.h>
#include <time.h>

#include "net/net.h"

namespace quarry {

namespace {

constexpr long long kNsPerMs = 1000000;

// The poll events that stand for select's read and write sets, and what
// select counts as ready in each: an error ends both waits, a hang-up only
// the read one.
constexpr short kReadEvents = POLLIN | POLLRDNORM | POLLRDBAND;
constexpr short kWriteEvents = POLLOUT | POLLWRNORM | POLLWRBAND;
constexpr short kReadReady = kReadEvents | POLLHUP | POLLERR;
constexpr short kWriteReady = kWriteEvents | POLLERR;

// The wait of wait_ready and wait_once; |through_signals| says whether an
// interrupted wait goes on or fails with EINTR.
int wait_for(int fd, int mode, long long timeout_ms, bool through_signals) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (timeout_ms < 0) {
    errno = EINVAL;
    return -1;
  }
  const bool want_read = (mode & kWaitReadable) != 0;
  const bool want_write = (mode & kWaitWritable) != 0;
  pollfd pfd = {fd, 0, 0};
  if (want_read) pfd.events |= kReadEvents;
  if (want_write) pfd.events |= kWriteEvents;
  // Without a direction the descriptor is not looked at: the wait is a
  // plain sleep.
  nfds_t count = (want_read || want_write) ? 1 : 0;
  const long long deadline = monotonic_ms() + timeout_ms;
  long long left = timeout_ms;
  for (;;) {
    timespec ts = {static_cast<time_t>(left / kMsPerSecond),
                   static_cast<long>(left % kMsPerSecond * kNsPerMs)};
    pfd.revents = 0;
    int ret = ppoll(&pfd, count, &ts, nullptr);
    if (ret < 0 && (errno != EINTR || !through_signals)) return ret;
    if (ret == 0) return 0;
    if (ret > 0) {
      if ((pfd.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
      }
      int ready = (want_read && (pfd.revents & kReadReady) != 0 ? 1 : 0) +
                  (want_write && (pfd.revents & kWriteReady) != 0 ? 1 : 0);
      if (ready > 0) return ready;
      // A hang-up while only writing is waited for: nothing the caller
      // asked about will change, so sleep out the time.
      count = 0;
    }
    // Interrupted (or nothing to watch any more): go on with the time still
    // left, so that signals can neither end the wait early nor stretch it.
    left = deadline - monotonic_ms();
    if (left < 0) left = 0;
  }
}

}  // namespace

long long monotonic_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * kMsPerSecond + ts.tv_nsec / kNsPerMs;
}

int wait_ready(int fd, int mode, long long timeout_ms) {
  return wait_for(fd, mode, timeout_ms, true);
}

int wait_once(int fd, int mode, long long timeout_ms) {
  return wait_for(fd, mode, timeout_ms, false);
}

}  // namespace quarry

extern "C" {

DL_EXPORT int dl_select(int fd, int mode, int timeout_s) {
  return quarry::wait_ready(fd, mode, static_cast<long long>(timeout_s) * quarry::kMsPerSecond);
}

}  // extern "C"

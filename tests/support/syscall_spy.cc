#include "tests/support/syscall_spy.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quarry_test {

namespace {

thread_local SyscallSpy *t_spy = nullptr;

// The name a libc function is linked under: with 64-bit time on a 32-bit
// system some are redirected by macro (ppoll to __ppoll64).
#define QUARRY_LINKED_NAME(fn) QUARRY_LINKED_NAME_TEXT(fn)
#define QUARRY_LINKED_NAME_TEXT(fn) #fn

template <typename Fn>
Fn next_symbol(const char *name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

struct SpyAccess {
  static int socket(int domain, int type, int protocol) {
    using Fn = int (*)(int, int, int);
    static const Fn real = next_symbol<Fn>("socket");
    SyscallSpy *spy = t_spy;
    if (spy != nullptr) ++spy->socket_calls_;
    if (spy != nullptr && spy->socket_errno_ != 0) {
      errno = spy->socket_errno_;
      return -1;
    }
    int fd = real(domain, type, protocol);
    if (spy == nullptr || spy->socket_min_fd_ == 0 || fd < 0) return fd;
    int high = fcntl(fd, F_DUPFD, spy->socket_min_fd_);
    close(fd);
    return high;
  }

  static int connect(int fd, const sockaddr *addr, socklen_t len) {
    using Fn = int (*)(int, const sockaddr *, socklen_t);
    static const Fn real = next_symbol<Fn>("connect");
    SyscallSpy *spy = t_spy;
    if (spy == nullptr) return real(fd, addr, len);
    ++spy->connect_calls_;
    int flags = fcntl(fd, F_GETFL);
    bool bend = spy->connect_at_once_ && flags >= 0 && (flags & O_NONBLOCK) != 0;
    if (bend) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    int ret = real(fd, addr, len);
    int saved = errno;
    if (bend) fcntl(fd, F_SETFL, flags);
    errno = saved;
    spy->errno_after_connect_ = errno;
    return ret;
  }

  static int select(int n, fd_set *r, fd_set *w, fd_set *e, timeval *tv) {
    using Fn = int (*)(int, fd_set *, fd_set *, fd_set *, timeval *);
    static const Fn real = next_symbol<Fn>("select");
    if (t_spy != nullptr) ++t_spy->select_calls_;
    return real(n, r, w, e, tv);
  }

  static int ppoll(pollfd *fds, nfds_t n, const timespec *ts, const sigset_t *mask) {
    using Fn = int (*)(pollfd *, nfds_t, const timespec *, const sigset_t *);
    static const Fn real = next_symbol<Fn>(QUARRY_LINKED_NAME(ppoll));
    if (t_spy != nullptr) ++t_spy->ppoll_calls_;
    return real(fds, n, ts, mask);
  }
};

SyscallSpy::SyscallSpy() { t_spy = this; }
SyscallSpy::~SyscallSpy() { t_spy = nullptr; }

}  // namespace quarry_test

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  return quarry_test::SpyAccess::socket(domain, type, protocol);
}

int connect(int fd, const sockaddr *addr, socklen_t len) {
  return quarry_test::SpyAccess::connect(fd, addr, len);
}

int select(int n, fd_set *r, fd_set *w, fd_set *e, timeval *tv) {
  return quarry_test::SpyAccess::select(n, r, w, e, tv);
}

int ppoll(pollfd *fds, nfds_t n, const timespec *ts, const sigset_t *mask) {
  return quarry_test::SpyAccess::ppoll(fds, n, ts, mask);
}

}  // extern "C"

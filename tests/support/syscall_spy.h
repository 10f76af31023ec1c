// Stand-ins for socket, connect, select and ppoll that a test program links in
// to watch and bend what the library asks of the kernel. Link
// syscall_spy.cc into that one test only: it replaces libc's functions
// for the whole program. Calls pass straight through, except on a thread
// that holds a SyscallSpy.
#ifndef QUARRY_TESTS_SUPPORT_SYSCALL_SPY_H
#define QUARRY_TESTS_SUPPORT_SYSCALL_SPY_H

namespace quarry_test {

class SyscallSpy {
 public:
  // Watches the calling thread until destroyed.
  SyscallSpy();
  ~SyscallSpy();
  SyscallSpy(const SyscallSpy &) = delete;
  SyscallSpy &operator=(const SyscallSpy &) = delete;

  // Readiness waits of either kind, select or ppoll.
  int wait_calls() const { return select_calls_ + ppoll_calls_; }
  int socket_calls() const { return socket_calls_; }
  int connect_calls() const { return connect_calls_; }

  // socket() fails with |err|.
  void fail_socket(int err) { socket_errno_ = err; }
  // socket() hands out descriptors numbered |min_fd| or above.
  void raise_socket_fd(int min_fd) { socket_min_fd_ = min_fd; }
  // connect() on a non-blocking socket completes before it returns, as
  // with a peer that answers at once.
  void connect_at_once() { connect_at_once_ = true; }
  // errno as the last connect() left it.
  int errno_after_connect() const { return errno_after_connect_; }

 private:
  friend struct SpyAccess;
  int select_calls_ = 0;
  int ppoll_calls_ = 0;
  int socket_calls_ = 0;
  int connect_calls_ = 0;
  int socket_errno_ = 0;
  int socket_min_fd_ = 0;
  bool connect_at_once_ = false;
  int errno_after_connect_ = 0;
};

}  // namespace quarry_test

#endif  // QUARRY_TESTS_SUPPORT_SYSCALL_SPY_H

// Capturing what the library writes outside the log file: standard output
// and the system-log socket.
#ifndef QUARRY_TESTS_ACCEPTANCE_CAPTURE_H
#define QUARRY_TESTS_ACCEPTANCE_CAPTURE_H

#include <functional>
#include <string>
#include <vector>

namespace acceptance {

// Points standard output at a pipe for one scope; take() restores it and
// returns everything written meanwhile (keep it below the pipe's size).
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture &) = delete;
  StdoutCapture &operator=(const StdoutCapture &) = delete;
  std::string take();

 private:
  void restore();
  int saved_ = -1;
  int read_fd_ = -1;
  int write_fd_ = -1;
};

// Runs |body| in a child process whose /dev is a private, empty tmpfs, so
// that "/dev/log" exists only once |body| calls the function it is given
// (which binds our datagram listener there and returns whether it could).
// Returns the datagrams received, in order, and the child's pid; |ok| is false when the child
// could not be set up. At most 10 datagrams fit in the socket's queue.
struct SyslogResult {
  bool ok = false;
  std::string pid;  // the child's process id, as the log lines show it
  std::vector<std::string> datagrams;
};
SyslogResult run_with_private_dev_log(const std::function<void(const std::function<bool()> &)> &body);

// The current process id as text, for expected log lines.
std::string pid_text();

}  // namespace acceptance

#endif  // QUARRY_TESTS_ACCEPTANCE_CAPTURE_H

#include "tests/acceptance/capture.h"

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

namespace acceptance {

namespace {

constexpr char kDevLogPath[] = "/dev/log";
constexpr int kChildSetupFailed = 3;

int bind_dev_log() {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, kDevLogPath, sizeof(kDevLogPath));
  if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool write_all(int fd, const void *data, size_t len) {
  const char *p = static_cast<const char *>(data);
  while (len > 0) {
    ssize_t n = write(fd, p, len);
    if (n <= 0) return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

std::string read_all(int fd) {
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
  return out;
}

// Child side: every datagram goes to the pipe as a 4-byte length and its
// bytes.
[[noreturn]] void child_main(int out_fd,
                             const std::function<void(const std::function<bool()> &)> &body) {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/dev", "tmpfs", 0, "size=1m,mode=755") != 0) {
    _exit(kChildSetupFailed);
  }
  int32_t pid = getpid();
  if (!write_all(out_fd, &pid, sizeof(pid))) _exit(kChildSetupFailed);
  int listener = -1;
  body([&listener]() {
    if (listener < 0) listener = bind_dev_log();
    return listener >= 0;
  });
  if (listener >= 0) {
    char buf[2048];
    ssize_t n;
    while ((n = recv(listener, buf, sizeof(buf), MSG_DONTWAIT)) >= 0) {
      uint32_t len = static_cast<uint32_t>(n);
      if (!write_all(out_fd, &len, sizeof(len)) || !write_all(out_fd, buf, len)) break;
    }
  }
  _exit(0);
}

}  // namespace

StdoutCapture::StdoutCapture() {
  fflush(stdout);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  read_fd_ = fds[0];
  write_fd_ = fds[1];
  saved_ = dup(STDOUT_FILENO);
  dup2(write_fd_, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture() {
  restore();
  if (read_fd_ >= 0) close(read_fd_);
}

void StdoutCapture::restore() {
  if (saved_ < 0) return;
  fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
  close(write_fd_);
  saved_ = -1;
  write_fd_ = -1;
}

std::string StdoutCapture::take() {
  restore();
  if (read_fd_ < 0) return "";
  return read_all(read_fd_);
}

SyslogResult run_with_private_dev_log(
    const std::function<void(const std::function<bool()> &)> &body) {
  SyslogResult result;
  int fds[2];
  if (pipe(fds) != 0) return result;
  fflush(stdout);
  fflush(stderr);
  pid_t child = fork();
  if (child < 0) {
    close(fds[0]);
    close(fds[1]);
    return result;
  }
  if (child == 0) {
    close(fds[0]);
    child_main(fds[1], body);
  }
  close(fds[1]);
  std::string raw = read_all(fds[0]);
  close(fds[0]);
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return result;
  }
  if (raw.size() < sizeof(int32_t)) return result;
  int32_t pid;
  memcpy(&pid, raw.data(), sizeof(pid));
  result.pid = std::to_string(pid);
  size_t at = sizeof(pid);
  while (at + sizeof(uint32_t) <= raw.size()) {
    uint32_t len;
    memcpy(&len, raw.data() + at, sizeof(len));
    at += sizeof(len);
    if (at + len > raw.size()) return result;
    result.datagrams.emplace_back(raw.substr(at, len));
    at += len;
  }
  result.ok = true;
  return result;
}

std::string pid_text() { return std::to_string(getpid()); }

}  // namespace acceptance

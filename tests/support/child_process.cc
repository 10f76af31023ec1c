#include "tests/support/child_process.h"

#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quarry_test {

const char kChildDied[] = "child died";

std::string run_in_child(const std::function<std::string()> &body) {
  int fds[2];
  if (pipe(fds) != 0) return kChildDied;
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return kChildDied;
  }
  if (pid == 0) {
    close(fds[0]);
    std::string out = body();
    ssize_t unused = write(fds[1], out.data(), out.size());
    (void)unused;
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return kChildDied;
  return out;
}

bool use_private_hosts(const std::string &content) {
  if (geteuid() != 0) return false;
  char name[] = "/tmp/quarry-hosts-XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0) return false;
  bool written = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  close(fd);
  bool done = written && unshare(CLONE_NEWNS) == 0 &&
              mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
              mount(name, "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
  // The bind mount keeps the file alive without its name.
  unlink(name);
  return done;
}

}  // namespace quarry_test

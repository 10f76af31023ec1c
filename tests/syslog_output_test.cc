// The system-log output tested for real: the library connects to
// "/dev/log", so each test runs in a child process with a private mount
// namespace whose /dev is a fresh tmpfs holding our own datagram listener.
// The machine's real /dev/log is never touched.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/syscall_spy.h"

namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr char kDevLog[] = "/dev/log";
constexpr char kRecordEnd = '\x1e';  // separates datagrams on the pipe

// Binds a datagram listener at /dev/log (inside the child's private /dev).
int listen_dev_log() {
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, kDevLog, sizeof(kDevLog));
  if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Collects every datagram that arrives within a short quiet period.
std::vector<std::string> drain(int fd) {
  std::vector<std::string> out;
  for (;;) {
    pollfd pfd = {fd, POLLIN, 0};
    if (poll(&pfd, 1, 200) <= 0) break;
    char buf[1024];
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n < 0) break;
    out.emplace_back(buf, static_cast<size_t>(n));
  }
  return out;
}

// Runs |body| in a child with a private, empty /dev. |body| receives a
// function that starts the listener and returns the datagrams it got when
// called again. Returns the datagrams, or an empty vector with a failure.
struct Listener {
  int fd = -1;
  bool start() {
    fd = listen_dev_log();
    return fd >= 0;
  }
};

std::vector<std::string> run_isolated(const std::function<void(Listener &)> &body) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", 0, "size=1m,mode=755") != 0) {
      _exit(3);
    }
    Listener listener;
    body(listener);
    if (listener.fd < 0) _exit(4);
    for (const std::string &datagram : drain(listener.fd)) {
      std::string record = datagram + kRecordEnd;
      if (write(fds[1], record.data(), record.size()) < 0) _exit(5);
    }
    _exit(0);
  }
  close(fds[1]);
  std::string all;
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof(buf))) > 0) all.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t at = all.find(kRecordEnd); at != std::string::npos; at = all.find(kRecordEnd, start)) {
    out.push_back(all.substr(start, at - start));
    start = at + 1;
  }
  return out;
}

class SyslogOutput : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "a private mount namespace needs root";
  }
};

// "<131>Nov 15 08:52:24 LIBQ[812]: " as the regex of a line's start.
std::string head(int priority) {
  return "<" + std::to_string(priority) +
         ">[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} LIBQ\\[[0-9]+\\]: ";
}

TEST_F(SyslogOutput, LineCarriesPriorityTimestampTagAndPid) {
  auto got = run_isolated([](Listener &listener) {
    listener.start();
    libq_log_init("LIBQ", DL_LOG_TYPE_SYSLOG, 0, nullptr);
    libq_log(2, 3, "Invalid URL\n");
  });
  ASSERT_EQ(got.size(), 2u);
  EXPECT_THAT(got[0], MatchesRegex(head(128) +
                                   "DANY<0\\+emerg > LIBQ log :type=1,time=0,E=3,W=4,N=5,I=6,D=7\n"));
  EXPECT_THAT(got[1], MatchesRegex(head(131) + "DCMN<3\\+error > Invalid URL\n"));
}

TEST_F(SyslogOutput, FilteredLinesSendNothing) {
  auto got = run_isolated([](Listener &listener) {
    listener.start();
    libq_log_init("LIBQ", DL_LOG_TYPE_SYSLOG, 0, nullptr);
    libq_log(3, 5, "notice is above the default threshold\n");
    libq_log(3, 4, "warning passes\n");
  });
  ASSERT_EQ(got.size(), 2u);
  EXPECT_THAT(got[1], MatchesRegex(head(132) + "HTTP<4\\+warnin> warning passes\n"));
}

TEST_F(SyslogOutput, OutputHealsOnceDevLogAppears) {
  auto got = run_isolated([](Listener &listener) {
    // No /dev/log yet: the init line and the next are lost.
    libq_log_init("LIBQ", DL_LOG_TYPE_SYSLOG, 0, nullptr);
    libq_log(2, 3, "lost\n");
    listener.start();
    // This call finds the output closed, reconnects and drops its line.
    libq_log(2, 3, "dropped while reconnecting\n");
    libq_log(2, 3, "arrives\n");
  });
  ASSERT_EQ(got.size(), 1u);
  EXPECT_THAT(got[0], MatchesRegex(head(131) + "DCMN<3\\+error > arrives\n"));
}

TEST_F(SyslogOutput, MissingDevLogCostsOneConnectPerLine) {
  auto got = run_isolated([](Listener &listener) {
    libq_log_exit();
    quarry_test::SyscallSpy spy;
    // The output is opened, and its opening line tries again.
    libq_log_init("LIBQ", DL_LOG_TYPE_SYSLOG, 0, nullptr);
    for (int i = 0; i < 3; ++i) libq_log(2, 3, "lost\n");
    // One socket, tried again by each line.
    if (spy.socket_calls() != 1 || spy.connect_calls() != 5) _exit(6);
    listener.start();
    libq_log(2, 3, "dropped while reconnecting\n");
    libq_log(2, 3, "arrives\n");
  });
  ASSERT_EQ(got.size(), 1u);
  EXPECT_THAT(got[0], MatchesRegex(head(131) + "DCMN<3\\+error > arrives\n"));
}

TEST_F(SyslogOutput, TimeStampsFollowTheLabel) {
  auto got = run_isolated([](Listener &listener) {
    listener.start();
    libq_log_init("LIBQ", DL_LOG_TYPE_SYSLOG, 1, nullptr);
    libq_log(5, 2, "critical\n");
  });
  ASSERT_EQ(got.size(), 2u);
  EXPECT_THAT(got[1],
              MatchesRegex(head(130) + "FTP <2\\+crit  > [0-9]{3}\\.[0-9]{3}\\.[0-9]{3}:critical\n"));
}

TEST_F(SyslogOutput, FirstConfigInitLogsOnlyTheEngineLineAtDefaultThresholds) {
  auto got = run_isolated([](Listener &listener) {
    listener.start();
    dl_config_init();
    dl_exit();
  });
  ASSERT_EQ(got.size(), 1u);
  EXPECT_THAT(got[0], MatchesRegex(head(128) + "DANY<0\\+emerg > LIBQ log :type=1,.*"));
}

TEST_F(SyslogOutput, ExitLineReachesSystemLogAtDebugThresholds) {
  auto got = run_isolated([](Listener &listener) {
    listener.start();
    dl_config_init();
    dl_set_log_level(0);
    dl_exit();
  });
  std::vector<std::string> messages;
  for (const std::string &line : got) messages.push_back(line.substr(line.find("> ") + 2));
  EXPECT_THAT(messages, testing::Contains("destroy ssl lock\n"));
}

}  // namespace

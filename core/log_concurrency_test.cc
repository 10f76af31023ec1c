// The logging engine used from many threads while another one changes the
// output and the thresholds: no line lost or torn, no descriptor left
// behind. Meant to run under ThreadSanitizer as well (QUARRY_TSAN).
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::open_descriptors;
using quarry_test::read_file;
using quarry_test::TempDir;

constexpr int kLoggers = 4;
constexpr int kLinesEach = 2000;
// Fewer where a system logger may be listening: its log is not the test's.
constexpr int kSyslogLinesEach = 500;
constexpr unsigned kHttp = DL_LOG_MODULE_HTTP;
constexpr unsigned kFtp = DL_LOG_MODULE_FTP;

// Runs kLoggers threads writing |lines_each| error lines each ("line T I")
// while |change| runs over and over on another thread.
template <typename Change>
void log_while(int lines_each, Change change) {
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    for (int n = 0; !stop; ++n) change(n);
  });
  std::vector<std::thread> loggers;
  for (int t = 0; t < kLoggers; ++t) {
    loggers.emplace_back([t, lines_each] {
      for (int i = 0; i < lines_each; ++i) libq_log(kHttp, 3, "line %d %d\n", t, i);
    });
  }
  for (auto &l : loggers) l.join();
  stop = true;
  changer.join();
}

class LogConcurrency : public ::testing::Test {
 protected:
  void TearDown() override { libq_log_exit(); }
  TempDir dir_;
};

TEST_F(LogConcurrency, FileReopenedAndThresholdsChangedLoseNoLine) {
  const std::string path = dir_.file("log.txt");
  const int fds_before = open_descriptors();
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, path.c_str());
  log_while(kLinesEach, [&](int n) {
    // Re-initialising keeps the file (opened for appending) and sets every
    // threshold back to 4: error lines of the loggers still pass.
    if (n % 8 == 0) libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, path.c_str());
    libq_log_set(kFtp, n % 2 == 0 ? 7 : 3);
    dl_set_log_module_level(kHttp, n % 2 == 0 ? 3 : 9);
  });
  libq_log_exit();
  EXPECT_EQ(open_descriptors(), fds_before);

  std::istringstream lines(read_file(path));
  std::string line;
  std::vector<int> next(kLoggers, 0);
  int seen = 0;
  while (std::getline(lines, line)) {
    size_t at = line.find("> line ");
    if (at == std::string::npos) continue;
    int t = -1;
    int i = -1;
    ASSERT_EQ(sscanf(line.c_str() + at, "> line %d %d", &t, &i), 2) << line;
    ASSERT_TRUE(t >= 0 && t < kLoggers) << line;
    // Each thread's lines arrive whole and in order.
    EXPECT_EQ(i, next[t]) << line;
    next[t] = i + 1;
    ++seen;
  }
  EXPECT_EQ(seen, kLoggers * kLinesEach);
}

TEST_F(LogConcurrency, SystemLogReconnectsLeaveNoDescriptor) {
  // Whether or not a system logger listens on /dev/log, every line that
  // finds no connected socket makes one; racing threads must not leave
  // any of them behind.
  const int fds_before = open_descriptors();
  libq_log_init("LIBQ", DL_LOG_TYPE_SYSLOG, 0, nullptr);
  log_while(kSyslogLinesEach, [](int n) { libq_log_set(kFtp, n % 2 == 0 ? 7 : 3); });
  libq_log_exit();
  EXPECT_EQ(open_descriptors(), fds_before);
}

}  // namespace

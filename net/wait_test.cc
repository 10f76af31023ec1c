#include <errno.h>
#include <pthread.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "quarry.h"

namespace {

constexpr int kReadable = 1;
constexpr int kWritable = 2;
constexpr int kSignalEveryUs = 50000;
constexpr int kTimeoutMs = 1000;
constexpr int kToleranceMs = 10;
// Generous: a busy machine or an emulator runs late, but a wait that
// starts over after each signal would never end at all.
constexpr int kLateToleranceMs = 1500;

// A connected pair of stream sockets: [0] is waited on, [1] is the far end.
class Select : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0); }
  void TearDown() override {
    close(fds_[0]);
    close(fds_[1]);
  }
  // Fills the send buffer of fds_[0] so that it is no longer writable.
  void fill_send_buffer() {
    char block[4096] = {};
    while (send(fds_[0], block, sizeof(block), MSG_DONTWAIT) > 0) {
    }
  }
  int fds_[2] = {-1, -1};
};

TEST_F(Select, ReadableSocketIsReady) {
  ASSERT_EQ(write(fds_[1], "x", 1), 1);
  EXPECT_EQ(dl_select(fds_[0], kReadable, 1), 1);
}

TEST_F(Select, NothingToReadTimesOut) {
  EXPECT_EQ(dl_select(fds_[0], kReadable, 1), 0);
}

TEST_F(Select, WritableSocketIsReady) {
  EXPECT_EQ(dl_select(fds_[0], kWritable, 1), 1);
}

TEST_F(Select, FullSendBufferTimesOut) {
  fill_send_buffer();
  EXPECT_EQ(dl_select(fds_[0], kWritable, 1), 0);
}

TEST_F(Select, BothBitsEndTheWaitWhenEitherIsPossible) {
  // Writable, nothing to read.
  EXPECT_GT(dl_select(fds_[0], kReadable | kWritable, 1), 0);
  // Readable, not writable.
  fill_send_buffer();
  ASSERT_EQ(write(fds_[1], "x", 1), 1);
  EXPECT_GT(dl_select(fds_[0], kReadable | kWritable, 1), 0);
}

TEST_F(Select, ModeZeroOnlyWaitsForTheTimeout) {
  ASSERT_EQ(write(fds_[1], "x", 1), 1);
  EXPECT_EQ(dl_select(fds_[0], 0, 1), 0);
}

TEST_F(Select, NegativeTimeoutIsSelectsError) {
  errno = 0;
  EXPECT_EQ(dl_select(fds_[0], kReadable, -1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Select, ClosedDescriptorIsSelectsError) {
  int fd = dup(fds_[0]);
  close(fd);
  errno = 0;
  EXPECT_EQ(dl_select(fd, kReadable, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(SelectArguments, NegativeDescriptorIsRefused) {
  errno = 0;
  EXPECT_EQ(dl_select(-1, kReadable, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Select, BothDirectionsReadyCountTwice) {
  ASSERT_EQ(write(fds_[1], "x", 1), 1);
  EXPECT_EQ(dl_select(fds_[0], kReadable | kWritable, 1), 2);
}

TEST_F(Select, ClosedFarEndIsReadable) {
  close(fds_[1]);
  fds_[1] = -1;
  EXPECT_EQ(dl_select(fds_[0], kReadable, 1), 1);
}

TEST(SelectArguments, ModeZeroDoesNotLookAtTheDescriptor) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(dl_select(fds[0], 0, 0), 0);
}

// A hang-up is news for a reader only: a writer's wait runs to its end.
TEST(SelectPipe, HungUpReadEndNeverBecomesWritable) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[1]);
  EXPECT_EQ(dl_select(fds[0], kWritable, 1), 0);
  EXPECT_EQ(dl_select(fds[0], kReadable | kWritable, 1), 1);
  close(fds[0]);
}

// Descriptors from FD_SETSIZE on are waited on like any other.
class SelectHighDescriptor : public Select {
 protected:
  void SetUp() override {
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
    if (saved_.rlim_max <= kHigh) GTEST_SKIP() << "descriptor limit too low";
    rlimit raised = saved_;
    if (raised.rlim_cur <= kHigh) raised.rlim_cur = kHigh + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    Select::SetUp();
    ASSERT_EQ(dup2(fds_[0], kHigh), kHigh);
    close(fds_[0]);
    fds_[0] = kHigh;
  }
  void TearDown() override {
    Select::TearDown();
    setrlimit(RLIMIT_NOFILE, &saved_);
  }
  static constexpr int kHigh = FD_SETSIZE + 5;
  rlimit saved_ = {};
};

TEST_F(SelectHighDescriptor, ReadableIsReady) {
  ASSERT_EQ(write(fds_[1], "x", 1), 1);
  EXPECT_EQ(dl_select(fds_[0], kReadable, 1), 1);
}

TEST_F(SelectHighDescriptor, NothingToReadTimesOut) {
  EXPECT_EQ(dl_select(fds_[0], kReadable, 1), 0);
}

TEST_F(SelectHighDescriptor, WritableIsReady) {
  EXPECT_EQ(dl_select(fds_[0], kWritable, 1), 1);
}

// Signals arrive every 50 ms while the wait runs; select is interrupted
// each time and must be called again.
class SelectUnderSignals : public Select {
 protected:
  void SetUp() override {
    Select::SetUp();
    signals_ = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { signals_.fetch_add(1); };
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGALRM, &action, &saved_), 0);
    itimerval timer = {{0, kSignalEveryUs}, {0, kSignalEveryUs}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
  }
  void TearDown() override {
    itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &saved_, nullptr);
    Select::TearDown();
  }
  static std::atomic<int> signals_;
  struct sigaction saved_ = {};
};

std::atomic<int> SelectUnderSignals::signals_{0};

TEST_F(SelectUnderSignals, InterruptedWaitRunsOnToTheTimeout) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_select(fds_[0], kReadable, 1), 0);
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GT(signals_.load(), 0);
  // Neither cut short nor stretched by the signals.
  EXPECT_GE(took, std::chrono::milliseconds(kTimeoutMs - kToleranceMs));
  EXPECT_LT(took, std::chrono::milliseconds(kTimeoutMs + kLateToleranceMs));
}

TEST_F(SelectUnderSignals, InterruptedWaitStillSeesDataArrive) {
  // The writer inherits a mask that keeps the signals for this thread.
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
  std::thread writer([this] {
    while (signals_.load() < 3) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ssize_t unused = write(fds_[1], "x", 1);
    (void)unused;
  });
  pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
  int ret = dl_select(fds_[0], kReadable, 5);
  writer.join();
  EXPECT_EQ(ret, 1);
}

}  // namespace

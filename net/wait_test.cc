#include <errno.h>
#include <pthread.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/select.h>
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

TEST(SelectArguments, DescriptorBeyondTheSetIsRefused) {
  errno = 0;
  EXPECT_EQ(dl_select(FD_SETSIZE, kReadable, 1), -1);
  EXPECT_EQ(errno, EINVAL);
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
  EXPECT_EQ(dl_select(fds_[0], kReadable, 1), 0);
  EXPECT_GT(signals_.load(), 0);
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

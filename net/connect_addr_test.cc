#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "net/net_test_support.h"
#include "tests/peer/listener.h"
#include "tests/support/syscall_spy.h"

namespace quarry_test {
namespace {

const in_addr kLoopback4 = {htonl(INADDR_LOOPBACK)};
const in6_addr kLoopback6 = IN6ADDR_LOOPBACK_INIT;
constexpr int kBadFamily = 255;
constexpr int kSignalAfterUs = 100000;

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

using ConnectAddr = NetTest;

TEST_F(ConnectAddr, ConnectsToIpv4Listener) {
  Listener listener;
  ASSERT_TRUE(listener.ok());
  int fd = net_connect_addr(AF_INET, &kLoopback4, listener.port(), 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_port(fd), listener.port());
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("127.0.0.1", listener.port())));
  EXPECT_FALSE(log().mentions("Connect Failed!"));
  close(fd);
}

TEST_F(ConnectAddr, ConnectsToIpv6Loopback) {
  Listener listener(true);
  ASSERT_TRUE(listener.ok());
  int fd = net_connect_addr(AF_INET6, &kLoopback6, listener.port(), 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_port(fd), listener.port());
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("::1", listener.port())));
  close(fd);
}

TEST_F(ConnectAddr, ReturnsTheSocketInBlockingMode) {
  Listener listener;
  int fd = net_connect_addr(AF_INET, &kLoopback4, listener.port(), 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  close(fd);
}

TEST_F(ConnectAddr, KeepAliveStaysOff) {
  Listener listener;
  int fd = net_connect_addr(AF_INET, &kLoopback4, listener.port(), 1);
  ASSERT_GT(fd, 0);
  int on = -1;
  socklen_t len = sizeof(on);
  ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, &len), 0);
  EXPECT_EQ(on, 0);
  close(fd);
}

TEST_F(ConnectAddr, ClosedPortReportsTheRefusalReadAfterTheWait) {
  uint16_t port = closed_port();
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, port, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(1, EINPROGRESS, 1, ECONNREFUSED)));
}

TEST_F(ConnectAddr, ClosedPortWithBlockingConnectReportsConnectsOwnError) {
  uint16_t port = closed_port();
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, port, 0), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(-1, ECONNREFUSED, 0, -1)));
}

TEST_F(ConnectAddr, UnansweredConnectTimesOut) {
  Listener listener(false, 0, 0);
  ASSERT_TRUE(listener.fill_backlog());
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, listener.port(), 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(0, EINPROGRESS, 1, -1)));
}

TEST_F(ConnectAddr, SignalEndsTheOneWait) {
  Listener listener(false, 0, 0);
  ASSERT_TRUE(listener.fill_backlog());
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigemptyset(&action.sa_mask);
  struct sigaction saved = {};
  ASSERT_EQ(sigaction(SIGALRM, &action, &saved), 0);
  itimerval once = {{0, 0}, {0, kSignalAfterUs}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &once, nullptr), 0);
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, listener.port(), 5), DL_ERR_CONNECT);
  sigaction(SIGALRM, &saved, nullptr);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(-1, EINTR, 5, -1)));
}

TEST_F(ConnectAddr, ImmediateSuccessCountsAsFailure) {
  Listener listener;
  SyscallSpy spy;
  spy.connect_at_once();
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, listener.port(), 1), DL_ERR_CONNECT);
  EXPECT_EQ(spy.wait_calls(), 0);
  EXPECT_TRUE(
      log().has(kDcmn, kError, connect_failed_line(0, spy.errno_after_connect(), 1, -1)));
  // The peer did take the connection.
  int accepted = listener.accept_within(1000);
  EXPECT_GE(accepted, 0);
  if (accepted >= 0) close(accepted);
}

TEST_F(ConnectAddr, TimeoutZeroConnectsWithoutSelect) {
  Listener listener;
  SyscallSpy spy;
  int fd = net_connect_addr(AF_INET, &kLoopback4, listener.port(), 0);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(spy.connect_calls(), 1);
  EXPECT_EQ(spy.wait_calls(), 0);
  close(fd);
}

TEST_F(ConnectAddr, TimeoutAboveZeroWaitsOnce) {
  Listener listener;
  SyscallSpy spy;
  int fd = net_connect_addr(AF_INET, &kLoopback4, listener.port(), 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(spy.wait_calls(), 1);
  close(fd);
}

TEST_F(ConnectAddr, FailedAttemptClosesItsSocket) {
  uint16_t port = closed_port();
  int before = lowest_free_fd();
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, port, 1), DL_ERR_CONNECT);
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, port, 0), DL_ERR_CONNECT);
  EXPECT_EQ(lowest_free_fd(), before);
}

TEST_F(ConnectAddr, SocketFailureReturnsSocketsOwnResult) {
  SyscallSpy spy;
  spy.fail_socket(EMFILE);
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, 80, 1), -1);
  EXPECT_TRUE(log().has(kDcmn, kError, "Create Socket Error\n"));
  EXPECT_EQ(spy.connect_calls(), 0);
}

TEST_F(ConnectAddr, UnknownFamilyCannotMakeASocket) {
  EXPECT_EQ(net_connect_addr(kBadFamily, &kLoopback6, 80, 1), -1);
  EXPECT_TRUE(log().has(kDcmn, kError, "Create Socket Error\n"));
}

TEST_F(ConnectAddr, NullAddressIsRefused) {
  EXPECT_EQ(net_connect_addr(AF_INET, nullptr, 80, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, "Invalid connect address\n"));
}

TEST_F(ConnectAddr, PortOutsideTheTcpRangeIsRefused) {
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, 65536, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, "Invalid connect port 65536\n"));
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, -1, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, "Invalid connect port -1\n"));
  EXPECT_FALSE(log().mentions("Connecting IP"));
}

TEST_F(ConnectAddr, NegativeTimeoutFailsInTheWait) {
  Listener listener;
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, listener.port(), -1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(-1, EINVAL, -1, -1)));
}

// Descriptors from FD_SETSIZE on, which select could not watch.
class HighDescriptor : public ConnectAddr {
 protected:
  void SetUp() override {
    ConnectAddr::SetUp();
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur <= FD_SETSIZE) {
      GTEST_SKIP() << "descriptor limit too low";
    }
  }
};

TEST_F(HighDescriptor, ConnectIsWaitedFor) {
  Listener listener;
  SyscallSpy spy;
  spy.raise_socket_fd(FD_SETSIZE);
  int fd = net_connect_addr(AF_INET, &kLoopback4, listener.port(), 1);
  EXPECT_GE(fd, FD_SETSIZE);
  EXPECT_EQ(spy.wait_calls(), 1);
  if (fd >= 0) close(fd);
}

TEST_F(HighDescriptor, FailedConnectClosesIt) {
  SyscallSpy spy;
  spy.raise_socket_fd(FD_SETSIZE);
  EXPECT_EQ(net_connect_addr(AF_INET, &kLoopback4, closed_port(), 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(1, EINPROGRESS, 1, ECONNREFUSED)));
  EXPECT_FALSE(is_open(FD_SETSIZE));
}

TEST_F(HighDescriptor, BlockingConnectNeedsNoWait) {
  Listener listener;
  SyscallSpy spy;
  spy.raise_socket_fd(FD_SETSIZE);
  int fd = net_connect_addr(AF_INET, &kLoopback4, listener.port(), 0);
  EXPECT_GE(fd, FD_SETSIZE);
  if (fd >= 0) close(fd);
}

}  // namespace
}  // namespace quarry_test

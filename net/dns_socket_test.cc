// The own resolver's UDP sockets when the kernel will not give one, or
// gives one beyond what select could watch.
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <string>

#include "net/dns_test_peer.h"
#include "tests/support/syscall_spy.h"

namespace quarry_test {
namespace {

const char kSocketError[] = "dns resolv socket init error\n";

DnsPeer::Script answering() {
  return answer_with([](const std::string &q) { return reply_to(q, {a_record("192.0.2.1")}); });
}

using DnsSocket = DnsTest;

TEST_F(DnsSocket, NoSocketEndsTheQueryAtOnce) {
  DnsPeer first(answering());
  DnsPeer second(answering());
  use_servers({first.nameserver_line(), second.nameserver_line()});
  SyscallSpy spy;
  spy.fail_socket(EMFILE);
  EXPECT_EQ(resolve("a.test", kA, 2), -1);
  EXPECT_EQ(log().count(kDcmn, kError, kSocketError), 1);
  EXPECT_EQ(first.query_count() + second.query_count(), 0u);
  EXPECT_EQ(spy.wait_calls(), 0);
}

TEST_F(DnsSocket, SocketBeyondSelectsReachIsWaitedOn) {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur <= FD_SETSIZE) {
    GTEST_SKIP() << "descriptor limit too low";
  }
  DnsPeer peer(answering());
  use_servers({peer.nameserver_line(), peer.nameserver_line()});
  SyscallSpy spy;
  spy.raise_socket_fd(FD_SETSIZE);
  EXPECT_EQ(resolve("a.test", kA), 0);
  EXPECT_EQ(addr4(0), "192.0.2.1");
  EXPECT_EQ(spy.wait_calls(), 1);
  // The first server answered; the socket was closed.
  EXPECT_EQ(peer.wait_for_queries(1), 1u);
  EXPECT_EQ(fcntl(FD_SETSIZE, F_GETFD), -1);
}

}  // namespace
}  // namespace quarry_test

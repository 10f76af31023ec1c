#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <string>
#include <vector>

#include "net/net_test_support.h"
#include "tests/peer/listener.h"
#include "tests/support/child_process.h"
#include "tests/support/syscall_spy.h"

namespace quarry_test {
namespace {

constexpr int kTypeA = 1;
constexpr int kTypeAAAA = 28;
// A name that resolves, in a child's private hosts file, to both
// loopback addresses.
const char kDualHost[] = "dual.quarry.test";
const char kDualHosts[] = "::1 dual.quarry.test\n127.0.0.1 dual.quarry.test\n";

void use_own_resolver(uint32_t on) { ASSERT_EQ(dl_set_option(DL_OPT_USE_OWN_RESOLVER, &on), 0); }

using Connect = NetTest;

TEST_F(Connect, ConnectsToANumericIpv4Host) {
  Listener listener;
  int fd = dl_connect("127.0.0.1", listener.port(), 0, 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_family(fd), AF_INET);
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_host_line("127.0.0.1", listener.port())));
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("127.0.0.1", listener.port())));
  close(fd);
}

TEST_F(Connect, ConnectsToLocalhostByName) {
  Listener listener;
  int fd = dl_connect("localhost", listener.port(), 0, 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_family(fd), AF_INET);
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("127.0.0.1", listener.port())));
  close(fd);
}

TEST_F(Connect, ConnectsToIpv6LoopbackWhenAllowed) {
  Listener listener(true);
  int fd = dl_connect("::1", listener.port(), 1, 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_family(fd), AF_INET6);
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("::1", listener.port())));
  close(fd);
}

TEST_F(Connect, Ipv6LiteralIsNotLookedUpWhenIpv6IsNotAllowed) {
  Listener listener(true);
  EXPECT_EQ(dl_connect("::1", listener.port(), 0, 1), DL_ERR_HOST);
  EXPECT_TRUE(log().has(kDcmn, kError, gai_line(EAI_ADDRFAMILY)));
  EXPECT_FALSE(log().mentions("Connecting IP"));
}

TEST_F(Connect, ClosedPortFailsWithTheRefusal) {
  uint16_t port = closed_port();
  int before = lowest_free_fd();
  EXPECT_EQ(dl_connect("127.0.0.1", port, 0, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(1, EINPROGRESS, 1, ECONNREFUSED)));
  EXPECT_EQ(lowest_free_fd(), before);
}

TEST_F(Connect, UnansweredConnectTimesOut) {
  Listener listener(false, 0, 0);
  ASSERT_TRUE(listener.fill_backlog());
  EXPECT_EQ(dl_connect("127.0.0.1", listener.port(), 0, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(0, EINPROGRESS, 1, -1)));
}

TEST_F(Connect, TimeoutZeroConnectsBlockingWithoutSelect) {
  Listener listener;
  SyscallSpy spy;
  int fd = dl_connect("127.0.0.1", listener.port(), 0, 0);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(spy.wait_calls(), 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  close(fd);
}

TEST_F(Connect, ImmediateSuccessYieldsConnectFailure) {
  Listener listener;
  SyscallSpy spy;
  spy.connect_at_once();
  EXPECT_EQ(dl_connect("127.0.0.1", listener.port(), 0, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(
      log().has(kDcmn, kError, connect_failed_line(0, spy.errno_after_connect(), 1, -1)));
}

TEST_F(Connect, SocketFailureMovesOnAndEndsWithConnectFailure) {
  SyscallSpy spy;
  spy.fail_socket(EMFILE);
  EXPECT_EQ(dl_connect("127.0.0.1", 80, 0, 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, "Create Socket Error\n"));
}

// A connection made on descriptor 0 is not taken as one; it must not be
// left open either.
TEST_F(Connect, ConnectionOnDescriptorZeroIsClosedAndFails) {
  Listener listener;
  int saved_stdin = dup(0);
  ASSERT_GE(saved_stdin, 0);
  close(0);
  int fd = dl_connect("127.0.0.1", listener.port(), 0, 1);
  bool zero_open = fcntl(0, F_GETFD) != -1;
  dup2(saved_stdin, 0);
  close(saved_stdin);
  EXPECT_EQ(fd, DL_ERR_CONNECT);
  EXPECT_FALSE(zero_open);
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("127.0.0.1", listener.port())));
}

TEST_F(Connect, NullHostIsRefused) {
  EXPECT_EQ(dl_connect(nullptr, 80, 0, 1), DL_ERR_HOST);
  EXPECT_TRUE(log().has(kDcmn, kError, "Invalid connect host\n"));
}

TEST_F(Connect, EmptyHostDoesNotResolve) {
  EXPECT_EQ(dl_connect("", 80, 0, 1), DL_ERR_HOST);
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_host_line("", 80)));
  EXPECT_TRUE(log().has(kDcmn, kError, gai_line(EAI_NONAME)));
}

TEST_F(Connect, ChangedResolverFileIsReloadedOnTheNextConnectOnly) {
  TempDir dir;
  std::string conf = dir.write("resolv.conf", "nameserver 127.0.0.1\n");
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, conf.c_str()), 0);
  Listener listener;
  int fd = dl_connect("127.0.0.1", listener.port(), 0, 1);
  ASSERT_GT(fd, 0);
  close(fd);
  EXPECT_EQ(log().count(kDcmn, kNotice, "resolv modified, reinit\n"), 1);
  struct stat st;
  ASSERT_EQ(stat(conf.c_str(), &st), 0);
  EXPECT_EQ(g_dl_cfg.resolv_conf_mtime, static_cast<int32_t>(st.st_mtime));

  fd = dl_connect("127.0.0.1", listener.port(), 0, 1);
  ASSERT_GT(fd, 0);
  close(fd);
  EXPECT_EQ(log().count(kDcmn, kNotice, "resolv modified, reinit\n"), 1);
}

TEST_F(Connect, ChangedHostsFileIsRecordedOnConnect) {
  TempDir dir;
  std::string hosts = dir.write("hosts", "127.0.0.1 localhost\n");
  utimbuf times = {1000000, 1000000};
  ASSERT_EQ(utime(hosts.c_str(), &times), 0);
  ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts.c_str()), 0);
  EXPECT_EQ(dl_connect(nullptr, 80, 0, 1), DL_ERR_HOST);
  EXPECT_NE(g_dl_cfg.hosts_mtime, 1000000);
  EXPECT_EQ(dl_connect("", 80, 0, 1), DL_ERR_HOST);
  EXPECT_EQ(g_dl_cfg.hosts_mtime, 1000000);
}

// ---------------------------------------------------- getaddrinfo order --

// Both loopback addresses under one name need a hosts file of the test's
// own, which a child gets in a private mount namespace.
class DualStackName : public Connect {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "a private /etc/hosts needs root";
    Connect::SetUp();
  }
};

TEST_F(DualStackName, Ipv4OnlyWhenIpv6IsNotAllowed) {
  std::string out = run_in_child([this]() -> std::string {
    if (!use_private_hosts(kDualHosts)) return "no private hosts";
    Listener v4;
    Listener v6(true, v4.port());
    if (!v4.ok() || !v6.ok()) return "no listeners";
    int fd = dl_connect(kDualHost, v4.port(), 0, 1);
    std::string result = fd > 0 ? "family " + std::to_string(peer_family(fd)) : "failed";
    if (log().mentions("Connecting IP = ::1")) result += ", tried ::1";
    if (log().has(kDcmn, kInfo, connecting_ip_line("127.0.0.1", v4.port()))) {
      result += ", tried 127.0.0.1";
    }
    return result;
  });
  if (out == "no private hosts") GTEST_SKIP() << out;
  EXPECT_EQ(out, "family " + std::to_string(AF_INET) + ", tried 127.0.0.1");
}

// The addresses are tried in getaddrinfo's order; the first one's port is
// closed, so the walk must go on to the second.
TEST_F(DualStackName, WalksAddressesInGetaddrinfoOrderWhenIpv6IsAllowed) {
  std::string out = run_in_child([this]() -> std::string {
    if (!use_private_hosts(kDualHosts)) return "no private hosts";
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    if (getaddrinfo(kDualHost, nullptr, &hints, &list) != 0) return "no look-up";
    std::vector<int> order;
    for (addrinfo *ai = list; ai != nullptr; ai = ai->ai_next) order.push_back(ai->ai_family);
    freeaddrinfo(list);
    if (order.size() != 2) return "not two addresses";

    Listener second(order[1] == AF_INET6);
    const std::string first_ip = order[0] == AF_INET6 ? "::1" : "127.0.0.1";
    const std::string second_ip = order[1] == AF_INET6 ? "::1" : "127.0.0.1";
    int fd = dl_connect(kDualHost, second.port(), 1, 1);
    std::string result = fd > 0 && peer_family(fd) == order[1] ? "second" : "not second";
    const std::string text = log().text();
    size_t first_at = text.find(connecting_ip_line(first_ip, second.port()));
    size_t failed_at = text.find(connect_failed_line(1, EINPROGRESS, 1, ECONNREFUSED));
    size_t second_at = text.find(connecting_ip_line(second_ip, second.port()));
    if (first_at < failed_at && failed_at < second_at && second_at != std::string::npos) {
      result += ", in order";
    }
    return result;
  });
  if (out == "no private hosts") GTEST_SKIP() << out;
  EXPECT_EQ(out, "second, in order");
}

// --------------------------------------------------------- own resolver --

class OwnResolver : public Connect {
 protected:
  void SetUp() override {
    Connect::SetUp();
    use_own_resolver(1);
  }
};

TEST_F(OwnResolver, ConnectsToIpv4Literal) {
  Listener listener;
  int fd = dl_connect("127.0.0.1", listener.port(), 0, 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_family(fd), AF_INET);
  EXPECT_FALSE(log().mentions("getaddrinfo"));
  close(fd);
}

TEST_F(OwnResolver, HostWithoutIpv6IsReachedOverIpv4WhenIpv6IsAllowed) {
  Listener listener;
  int fd = dl_connect("127.0.0.1", listener.port(), 1, 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_family(fd), AF_INET);
  close(fd);
}

TEST_F(OwnResolver, ResultIsTheIpv4AttemptsWhenIpv6FoundNothing) {
  EXPECT_EQ(dl_connect("127.0.0.1", closed_port(), 1, 1), DL_ERR_CONNECT);
  EXPECT_EQ(log().count(kDcmn, kError, connect_failed_line(1, EINPROGRESS, 1, ECONNREFUSED)), 1);
}

TEST_F(OwnResolver, ConnectsToIpv6LiteralWhenAllowed) {
  Listener listener(true);
  int fd = dl_connect("::1", listener.port(), 1, 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_family(fd), AF_INET6);
  close(fd);
}

TEST_F(OwnResolver, Ipv6LiteralIsNotFoundWhenIpv6IsNotAllowed) {
  Listener listener(true);
  EXPECT_EQ(dl_connect("::1", listener.port(), 0, 1), DL_ERR_HOST);
  EXPECT_FALSE(log().mentions("Connecting IP"));
}

TEST_F(OwnResolver, NullHostIsRefused) {
  EXPECT_EQ(dl_connect(nullptr, 80, 1, 1), DL_ERR_HOST);
  EXPECT_TRUE(log().has(kDcmn, kError, "Invalid connect host\n"));
}

using ConnectDns = Connect;

TEST_F(ConnectDns, ConnectsToTheAnsweredAddress) {
  Listener listener;
  int fd = net_connect_dns("127.0.0.1", kTypeA, listener.port(), 1);
  ASSERT_GT(fd, 0);
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("127.0.0.1", listener.port())));
  close(fd);
}

TEST_F(ConnectDns, ConnectsOverIpv6ForAaaa) {
  Listener listener(true);
  int fd = net_connect_dns("::1", kTypeAAAA, listener.port(), 1);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(peer_family(fd), AF_INET6);
  close(fd);
}

TEST_F(ConnectDns, LiteralOfTheOtherFamilyIsNotFound) {
  EXPECT_EQ(net_connect_dns("127.0.0.1", kTypeAAAA, 80, 1), DL_ERR_HOST);
  EXPECT_EQ(net_connect_dns("::1", kTypeA, 80, 1), DL_ERR_HOST);
  EXPECT_FALSE(log().mentions("Connecting IP"));
}

TEST_F(ConnectDns, FailedConnectGivesConnectFailure) {
  EXPECT_EQ(net_connect_dns("127.0.0.1", kTypeA, closed_port(), 1), DL_ERR_CONNECT);
  EXPECT_TRUE(log().has(kDcmn, kError, connect_failed_line(1, EINPROGRESS, 1, ECONNREFUSED)));
}

TEST_F(ConnectDns, NullHostIsRefused) {
  EXPECT_EQ(net_connect_dns(nullptr, kTypeA, 80, 1), DL_ERR_HOST);
  EXPECT_TRUE(log().has(kDcmn, kError, "Invalid connect host\n"));
}

}  // namespace
}  // namespace quarry_test

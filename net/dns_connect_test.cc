// dl_connect through the own resolver: IPv6 before IPv4 when allowed, and
// the resolver and hosts files followed as they change on disk.
#include <sys/stat.h>
#include <utime.h>

#include <string>
#include <vector>

#include "net/dns_test_peer.h"
#include "tests/peer/listener.h"

namespace quarry_test {
namespace {

const char kHost[] = "phone-server.test";
const char kResolvLine[] = "resolv modified, reinit\n";

// The type asked by a query (its last four bytes are type and class).
unsigned query_type(const std::string &q) {
  return q.size() < 4 ? 0
                      : (static_cast<uint8_t>(q[q.size() - 4]) << 8) |
                            static_cast<uint8_t>(q[q.size() - 3]);
}

std::vector<unsigned> types_asked(const DnsPeer &peer) {
  std::vector<unsigned> out;
  for (const auto &q : peer.queries()) out.push_back(query_type(q));
  return out;
}

// Answers A with 127.0.0.1 and, when |with_v6|, AAAA with ::1; without it
// an AAAA question gets an empty answer.
DnsPeer::Script loopback_server(bool with_v6) {
  return answer_with([with_v6](const std::string &q) {
    if (query_type(q) == static_cast<unsigned>(kAAAA)) {
      return with_v6 ? reply_to(q, {aaaa_record("::1")}) : reply_to(q, {});
    }
    return reply_to(q, {a_record("127.0.0.1")});
  });
}

bool set_mtime(const std::string &path, time_t when) {
  utimbuf times = {when, when};
  return utime(path.c_str(), &times) == 0;
}

class OwnResolverConnect : public DnsTest {
 protected:
  void SetUp() override {
    DnsTest::SetUp();
    uint32_t on = 1;
    ASSERT_EQ(dl_set_option(DL_OPT_USE_OWN_RESOLVER, &on), 0);
  }
  // dl_connect, closing what it returns; the result or descriptor count.
  int connect_once(int port, int ipv6) {
    int fd = dl_connect(kHost, port, ipv6, 1);
    if (fd > 0) {
      last_family_ = peer_family(fd);
      close(fd);
    }
    return fd;
  }
  int last_family_ = AF_UNSPEC;
};

TEST_F(OwnResolverConnect, Ipv4OnlyAsksForAddressRecords) {
  DnsPeer peer(loopback_server(true));
  use_servers({peer.nameserver_line()});
  Listener listener;
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(last_family_, AF_INET);
  EXPECT_EQ(types_asked(peer), std::vector<unsigned>({1}));
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_host_line(kHost, listener.port())));
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("127.0.0.1", listener.port())));
  EXPECT_FALSE(log().mentions("getaddrinfo"));
}

TEST_F(OwnResolverConnect, Ipv6FirstWhenAllowed) {
  DnsPeer peer(loopback_server(true));
  use_servers({peer.nameserver_line()});
  Listener listener(true);
  ASSERT_GT(connect_once(listener.port(), 1), 0);
  EXPECT_EQ(last_family_, AF_INET6);
  EXPECT_EQ(types_asked(peer), std::vector<unsigned>({28}));
  EXPECT_TRUE(log().has(kDcmn, kInfo, connecting_ip_line("::1", listener.port())));
}

TEST_F(OwnResolverConnect, HostWithoutIpv6IsReachedOverIpv4) {
  DnsPeer peer(loopback_server(false));
  use_servers({peer.nameserver_line()});
  Listener listener;
  ASSERT_GT(connect_once(listener.port(), 1), 0);
  EXPECT_EQ(last_family_, AF_INET);
  // An empty answer is no data: the second pass asks again.
  EXPECT_EQ(types_asked(peer), std::vector<unsigned>({28, 28, 1}));
}

TEST_F(OwnResolverConnect, Ipv6ConnectFailureFallsBackToIpv4) {
  DnsPeer peer(loopback_server(true));
  use_servers({peer.nameserver_line()});
  // Only IPv4 listens on the port.
  Listener listener;
  ASSERT_GT(connect_once(listener.port(), 1), 0);
  EXPECT_EQ(last_family_, AF_INET);
  EXPECT_EQ(types_asked(peer), std::vector<unsigned>({28, 1}));
}

TEST_F(OwnResolverConnect, UnknownNameIsAHostError) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  EXPECT_EQ(connect_once(80, 1), DL_ERR_HOST);
  EXPECT_EQ(types_asked(peer), std::vector<unsigned>({28, 28, 1, 1}));
  EXPECT_FALSE(log().mentions("Connecting IP"));
}

TEST_F(OwnResolverConnect, HostsFileNameNeedsNoServer) {
  DnsPeer peer(loopback_server(true));
  use_servers({peer.nameserver_line()});
  set_hosts(std::string("127.0.0.1 ") + kHost + "\n");
  Listener listener;
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(peer.query_count(), 0u);
}

// ------------------------------------------------------------- reload --

class ReloadOnConnect : public OwnResolverConnect {
 protected:
  static constexpr time_t kFirstTime = 1500000000;
  static constexpr time_t kSecondTime = 1600000000;

  void write_resolv(const DnsPeer &peer, time_t when) {
    dir_.write("resolv.conf", peer.nameserver_line());
    ASSERT_TRUE(set_mtime(resolv_, when));
  }
  void write_hosts(const std::string &text, time_t when) {
    dir_.write("hosts", text);
    ASSERT_TRUE(set_mtime(hosts_, when));
  }
};

TEST_F(ReloadOnConnect, ChangedResolverFileIsReadOnTheNextConnectOnly) {
  DnsPeer first(loopback_server(false));
  DnsPeer second(loopback_server(false));
  Listener listener;
  write_resolv(first, kFirstTime);

  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(log().count(kDcmn, kNotice, kResolvLine), 1);
  EXPECT_EQ(first.query_count(), 1u);

  // New content, same time: the file is not read again.
  write_resolv(second, kFirstTime);
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(log().count(kDcmn, kNotice, kResolvLine), 1);
  EXPECT_EQ(first.query_count(), 2u);
  EXPECT_EQ(second.query_count(), 0u);

  // A new time: read on the next connect, with the log line.
  ASSERT_TRUE(set_mtime(resolv_, kSecondTime));
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(log().count(kDcmn, kNotice, kResolvLine), 2);
  EXPECT_EQ(second.query_count(), 1u);
  EXPECT_EQ(first.query_count(), 2u);
  EXPECT_EQ(g_dl_cfg.resolv_conf_mtime, kSecondTime);
}

TEST_F(ReloadOnConnect, ChangedHostsFileIsReadOnTheNextConnect) {
  DnsPeer peer(name_error());
  write_resolv(peer, kFirstTime);
  Listener listener;
  write_hosts(std::string("127.0.0.1 ") + kHost + "\n", kFirstTime);
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(peer.query_count(), 0u);

  // Without the name, but the same time: the old entry still serves.
  write_hosts("127.0.0.1 other.test\n", kFirstTime);
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(peer.query_count(), 0u);

  ASSERT_TRUE(set_mtime(hosts_, kSecondTime));
  log().clear();
  EXPECT_EQ(connect_once(listener.port(), 0), DL_ERR_HOST);
  EXPECT_EQ(peer.query_count(), 2u);
  EXPECT_FALSE(log().mentions(kResolvLine));
  EXPECT_EQ(g_dl_cfg.hosts_mtime, kSecondTime);
}

TEST_F(ReloadOnConnect, NewPathIsReadOnTheNextConnect) {
  DnsPeer first(loopback_server(false));
  Listener listener;
  write_resolv(first, kFirstTime);
  ASSERT_GT(connect_once(listener.port(), 0), 0);

  DnsPeer second(loopback_server(false));
  std::string other = dir_.write("other.conf", second.nameserver_line());
  ASSERT_TRUE(set_mtime(other, kSecondTime));
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, other.c_str()), 0);
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(second.query_count(), 1u);
  EXPECT_EQ(first.query_count(), 1u);
}

TEST_F(ReloadOnConnect, ForgettingTheFileEmptiesItsListUntilTheNextCheck) {
  DnsPeer peer(loopback_server(false));
  Listener listener;
  write_resolv(peer, kFirstTime);
  ASSERT_GT(connect_once(listener.port(), 0), 0);

  EXPECT_EQ(dl_dns_resolv_conf_destroy(), 0);
  EXPECT_EQ(g_dl_cfg.resolv_conf_mtime, 0);
  dns_answer answer;
  EXPECT_NE(dl_dns_resolv_timeout(kHost, kA, kIn, &answer, 1, 1), 0);
  EXPECT_EQ(peer.query_count(), 1u);

  // The forgotten time makes the next check load the file again.
  ASSERT_GT(connect_once(listener.port(), 0), 0);
  EXPECT_EQ(peer.query_count(), 2u);
}

TEST_F(ReloadOnConnect, ForgettingTheHostsFile) {
  write_hosts(std::string("127.0.0.1 ") + kHost + "\n", kFirstTime);
  ASSERT_EQ(dl_dns_reload_hosts_conf(), 0);
  ASSERT_EQ(resolve(kHost, kA), 0);
  EXPECT_EQ(dl_dns_hosts_conf_destroy(), 0);
  EXPECT_EQ(g_dl_cfg.hosts_mtime, 0);
  EXPECT_NE(resolve(kHost, kA), 0);
}

}  // namespace
}  // namespace quarry_test

// The own resolver's walk over its sources: numeric addresses, the hosts
// file and the name servers in the configured order, and its settings.
#include <string>
#include <vector>

#include "net/dns_context.h"
#include "net/dns_test_peer.h"

namespace quarry_test {
namespace {

const char kName[] = "printer.office.test";

std::string answer_a(const std::string &q) { return reply_to(q, {a_record("192.0.2.200")}); }

using DnsResolve = DnsTest;

TEST_F(DnsResolve, Ipv4LiteralAnswersAtOnceWithoutAQuery) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve("192.0.2.7", kA), 0);
  EXPECT_EQ(answer_.type, 1u);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(answer_.ttl, 0u);
  EXPECT_EQ(answer_.flags, 0u);
  EXPECT_EQ(addr4(0), "192.0.2.7");
  EXPECT_EQ(peer.query_count(), 0u);
}

TEST_F(DnsResolve, Ipv6LiteralAnswersAaaa) {
  ASSERT_EQ(resolve("2001:db8::5", kAAAA), 0);
  EXPECT_EQ(answer_.type, 28u);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(addr6(0), "2001:db8::5");
}

TEST_F(DnsResolve, LiteralOfTheOtherFamilyFailsWithoutAQuery) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  set_hosts("127.0.0.1 ::1\n::1 127.0.0.1\n");
  EXPECT_EQ(resolve("127.0.0.1", kAAAA), -1);
  EXPECT_EQ(resolve("::1", kA), -1);
  EXPECT_EQ(peer.query_count(), 0u);
}

TEST_F(DnsResolve, NullArgumentsAreRefused) {
  dns_answer answer;
  EXPECT_NE(dl_dns_resolv(nullptr, kA, kIn, &answer), 0);
  EXPECT_NE(dl_dns_resolv("192.0.2.1", kA, kIn, nullptr), 0);
  EXPECT_EQ(dns_query(nullptr, kA, kIn, &answer, 1, 1), -1);
  EXPECT_EQ(dns_query(kName, kA, kIn, nullptr, 1, 1), -1);
}

TEST_F(DnsResolve, HostsNameNeverReachesTheNetworkWithTheDefaultOrder) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  set_hosts(std::string("192.0.2.50 ") + kName + "\n");
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(answer_.type, 1u);
  EXPECT_EQ(answer_.ttl, 0u);
  EXPECT_EQ(addr4(0), "192.0.2.50");
  EXPECT_EQ(peer.query_count(), 0u);
}

TEST_F(DnsResolve, HostsAnswerHoldsEveryMatchLaterLinesFirst) {
  set_hosts("192.0.2.1 multi.test\n"
            "2001:db8::1 multi.test\n"
            "192.0.2.2 other.test multi.test\n");
  ASSERT_EQ(resolve("multi.test", kA), 0);
  ASSERT_EQ(answer_.count, 2u);
  EXPECT_EQ(addr4(0), "192.0.2.2");
  EXPECT_EQ(addr4(1), "192.0.2.1");
  ASSERT_EQ(resolve("multi.test", kAAAA), 0);
  ASSERT_EQ(answer_.count, 1u);
  EXPECT_EQ(addr6(0), "2001:db8::1");
}

TEST_F(DnsResolve, HostsNamesCompareWithCase) {
  set_hosts("192.0.2.1 Case.Test\n");
  EXPECT_NE(resolve("case.test", kA), 0);
  EXPECT_EQ(resolve("Case.Test", kA), 0);
}

TEST_F(DnsResolve, HostsAnswerStopsAt32Addresses) {
  std::string text;
  for (int i = 1; i <= 40; ++i) text += "198.51.100." + std::to_string(i) + " many.test\n";
  set_hosts(text);
  ASSERT_EQ(resolve("many.test", kA), 0);
  ASSERT_EQ(answer_.count, 32u);
  EXPECT_EQ(addr4(0), "198.51.100.40");
  EXPECT_EQ(addr4(31), "198.51.100.9");
}

TEST_F(DnsResolve, ServersAreAskedWhenTheHostsFileHasNoMatch) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  set_hosts("192.0.2.1 elsewhere.test\n");
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(addr4(0), "192.0.2.200");
  EXPECT_EQ(peer.query_count(), 1u);
}

TEST_F(DnsResolve, PtrQuestionsSkipTheHostsFile) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  set_hosts("192.0.2.1 1.2.0.192.in-addr.arpa\n");
  EXPECT_EQ(resolve("1.2.0.192.in-addr.arpa", kPtr), -1);
  EXPECT_EQ(peer.query_count(), 1u);
}

TEST_F(DnsResolve, ServersFirstWhenSoOrdered) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  set_hosts(std::string("192.0.2.50 ") + kName + "\n");
  const int servers_first[] = {2, 1};
  ASSERT_EQ(dl_dns_set_resolv_seq(servers_first, 2), 0);
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(addr4(0), "192.0.2.200");
  EXPECT_EQ(peer.query_count(), 1u);
}

TEST_F(DnsResolve, HostsAfterServersThatFoundNothing) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  set_hosts(std::string("192.0.2.50 ") + kName + "\n");
  const int servers_first[] = {2, 1};
  ASSERT_EQ(dl_dns_set_resolv_seq(servers_first, 2), 0);
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(addr4(0), "192.0.2.50");
  EXPECT_EQ(answer_.ttl, 0u);
  EXPECT_EQ(peer.query_count(), 1u);
}

TEST_F(DnsResolve, ResultIsTheLastQuerysWhenNothingFound) {
  DnsPeer peer(answer_with([](const std::string &q) {
    return reply_to(q, {}, {record(wire_name("test"), kSoa, kIn, 60,
                                   wire_name("ns.test") + wire_name("h.test") + u32be(1) +
                                       u32be(2) + u32be(3) + u32be(4) + u32be(5))});
  }));
  use_servers({peer.nameserver_line()});
  EXPECT_EQ(resolve(kName, kA), -70);
}

TEST_F(DnsResolve, HostsOnlyOrderAsksNoServer) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  const int hosts_only[] = {1};
  ASSERT_EQ(dl_dns_set_resolv_seq(hosts_only, 1), 0);
  EXPECT_EQ(resolve(kName, kA), -1);
  EXPECT_EQ(peer.query_count(), 0u);
}

TEST_F(DnsResolve, EmptyOrderFindsNothing) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  set_hosts(std::string("192.0.2.50 ") + kName + "\n");
  const int nothing[] = {0, 0};
  ASSERT_EQ(dl_dns_set_resolv_seq(nothing, 2), 0);
  EXPECT_EQ(resolve(kName, kA), -1);
  EXPECT_EQ(peer.query_count(), 0u);
  // Numeric addresses need no source.
  EXPECT_EQ(resolve("192.0.2.1", kA), 0);
}

TEST_F(DnsResolve, ServersTwiceAreAskedTwice) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  const int twice[] = {2, 2};
  ASSERT_EQ(dl_dns_set_resolv_seq(twice, 2), 0);
  EXPECT_EQ(resolve(kName, kA), -1);
  EXPECT_EQ(peer.query_count(), 2u);
}

TEST_F(DnsResolve, OrderSetterRefusesBadArguments) {
  const int three[] = {1, 2, 1};
  EXPECT_EQ(dl_dns_set_resolv_seq(three, 3), -1);
  EXPECT_EQ(dl_dns_set_resolv_seq(nullptr, 1), -1);
  // The refused calls left the default order: hosts first.
  set_hosts(std::string("192.0.2.50 ") + kName + "\n");
  EXPECT_EQ(resolve(kName, kA), 0);
}

TEST_F(DnsResolve, ShortOrderClearsTheRest) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  set_hosts(std::string("192.0.2.50 ") + kName + "\n");
  const int servers_only[] = {2, 1};
  ASSERT_EQ(dl_dns_set_resolv_seq(servers_only, 1), 0);
  DnsPeer none(name_error());
  use_servers({none.nameserver_line()});
  EXPECT_EQ(resolve(kName, kA), -1);
}

TEST_F(DnsResolve, InitialisationSetsTheDefaults) {
  quarry::DnsSettings s = quarry::dns_settings();
  EXPECT_EQ(s.timeout_s, 5);
  EXPECT_EQ(s.passes, 2);
  EXPECT_EQ(s.seq[0], 1);
  EXPECT_EQ(s.seq[1], 2);
}

TEST_F(DnsResolve, SettersStoreTheirValues) {
  ASSERT_EQ(dl_dns_set_timeout(9), 0);
  ASSERT_EQ(dl_dns_set_nretry(4), 0);
  quarry::DnsSettings s = quarry::dns_settings();
  EXPECT_EQ(s.timeout_s, 9);
  EXPECT_EQ(s.passes, 4);
}

TEST_F(DnsResolve, SettersRefuseValuesBelowOne) {
  EXPECT_EQ(dl_dns_set_timeout(0), -1);
  EXPECT_EQ(dl_dns_set_timeout(-3), -1);
  EXPECT_EQ(dl_dns_set_nretry(0), -1);
  EXPECT_EQ(dl_dns_set_timeout(1), 0);
  EXPECT_EQ(dl_dns_set_nretry(1), 0);
}

// A server that always answers with the wrong identifier makes each
// attempt end at once, so the count of queries shows the passes.
DnsPeer::Script wrong_id() {
  return answer_with([](const std::string &q) {
    std::string r = reply_to(q, {a_record("192.0.2.1")});
    r[0] = static_cast<char>(r[0] ^ 0x01);
    return r;
  });
}

TEST_F(DnsResolve, DefaultPassesAreTwo) {
  DnsPeer peer(wrong_id());
  use_servers({peer.nameserver_line()});
  EXPECT_NE(dl_dns_resolv(kName, kA, kIn, &answer_), 0);
  EXPECT_EQ(peer.query_count(), 2u);
}

TEST_F(DnsResolve, PassesFollowTheSetting) {
  DnsPeer peer(wrong_id());
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(dl_dns_set_nretry(3), 0);
  EXPECT_NE(dl_dns_resolv(kName, kA, kIn, &answer_), 0);
  EXPECT_EQ(peer.query_count(), 3u);
}

TEST_F(DnsResolve, ResolvAnswersFromAServer) {
  DnsPeer peer(answer_with(answer_a));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(dl_dns_resolv(kName, kA, kIn, &answer_), 0);
  EXPECT_EQ(addr4(0), "192.0.2.200");
}

TEST_F(DnsResolve, ContextSurvivesExitAndInit) {
  dl_exit();
  dns_answer answer;
  // An exited library: empty lists, no order, no crash.
  EXPECT_NE(dl_dns_resolv(kName, kA, kIn, &answer), 0);
  dl_config_init();
  set_hosts(std::string("192.0.2.50 ") + kName + "\n");
  EXPECT_EQ(resolve(kName, kA), 0);
}

}  // namespace
}  // namespace quarry_test

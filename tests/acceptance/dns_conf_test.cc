// The resolver configuration: the resolver and hosts files as the resolver
// sees them, reloading on a change of modification time, the socket
// address parser and comparison, and the resolver against dnsmasq.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/acceptance/dns_peer.h"
#include "tests/support/real_servers.h"

namespace {

using namespace dns_acceptance;

class DnsConf : public ResolverTest {};

Reply answer_a(const char *addr) {
  Reply r;
  r.answers.push_back(rr(kTypeA, ipv4(addr)));
  return r;
}

Reply name_error() {
  Reply r;
  r.rcode = 3;
  return r;
}

// Moves the file's modification time |seconds| into the future.
void touch_ahead(const std::string &path, int seconds) {
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  timeval tv[2];
  tv[0].tv_sec = st.st_mtime + seconds;
  tv[0].tv_usec = 0;
  tv[1] = tv[0];
  ASSERT_EQ(0, utimes(path.c_str(), tv));
}

int resolve_a(const char *name, dns_answer *a) {
  return dl_dns_resolv_timeout(name, kTypeA, kClassIn, a, 1, 1);
}

// --- resolver file ------------------------------------------------------------

TEST_F(DnsConf, EightNameserversKeepTheFirstSix) {
  std::vector<std::unique_ptr<DnsPeer>> peers;
  std::string text;
  for (int i = 0; i < 6; ++i) {
    peers.emplace_back(new DnsPeer(name_error()));
    text += peers.back()->nameserver();
  }
  DnsPeer seventh(answer_a("192.0.2.7"));
  DnsPeer eighth(answer_a("192.0.2.8"));
  use_servers(text + seventh.nameserver() + eighth.nameserver());
  dns_answer a;
  EXPECT_NE(0, resolve_a("www.example.test", &a));
  for (const auto &p : peers) EXPECT_EQ(1u, p->queries());
  EXPECT_EQ(0u, seventh.queries());
  EXPECT_EQ(0u, eighth.queries());
}

TEST_F(DnsConf, RepeatedNameserverLinesEachAddAServer) {
  DnsPeer server(name_error());
  use_servers(server.nameserver() + server.nameserver());
  dns_answer a;
  EXPECT_NE(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(2u, server.queries());
}

TEST_F(DnsConf, ServersAreAskedInFileOrder) {
  DnsPeer first(answer_a("192.0.2.1"));
  DnsPeer second(answer_a("192.0.2.2"));
  use_servers(first.nameserver() + second.nameserver());
  dns_answer a;
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(ipv4("192.0.2.1"), held(a, 4));
  EXPECT_EQ(0u, second.queries());
}

TEST_F(DnsConf, BracketedIpv6WithPortIsAServer) {
  if (!ipv6_loopback_works()) GTEST_SKIP() << "no ::1";
  Reply r;
  r.answers.push_back(rr(kTypeAaaa, ipv6("2001:db8::44")));
  DnsPeer server([r](const std::string &q) { return std::vector<std::string>{build(q, r)}; },
                 true);
  ASSERT_TRUE(server.ok());
  use_servers(server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("www.example.test", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(ipv6("2001:db8::44"), held(a, 16));
  EXPECT_EQ(1u, server.queries());
}

TEST_F(DnsConf, Ipv4WithPortZeroIsRefusedWithTheParseMessage) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers("nameserver 127.0.0.1:0\n" + server.nameserver());
  EXPECT_TRUE(log().has(kCommon, kError, "Unable to parse nameserver address 127.0.0.1:0"))
      << log().text();
  dns_answer a;
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(1u, server.queries());
}

TEST_F(DnsConf, DomainSearchOptionsAndCommentsAddNoServer) {
  DnsPeer decoy(answer_a("192.0.2.99"));
  DnsPeer server(answer_a("192.0.2.1"));
  std::string port = std::to_string(decoy.port());
  use_servers("domain example.test\nsearch a.test b.test\noptions ndots:2 timeout:1\n"
              "# nameserver 127.0.0.1:" + port + "\n; nameserver 127.0.0.1:" + port + "\n" +
              server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(ipv4("192.0.2.1"), held(a, 4));
  EXPECT_EQ(0u, decoy.queries());
}

TEST_F(DnsConf, TabsSeparateTokens) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers("nameserver\t127.0.0.1:" + std::to_string(server.port()) + "\n");
  dns_answer a;
  EXPECT_EQ(0, resolve_a("www.example.test", &a));
}

TEST_F(DnsConf, ReloadReplacesTheServers) {
  DnsPeer old_server(answer_a("192.0.2.1"));
  DnsPeer new_server(answer_a("192.0.2.2"));
  use_servers(old_server.nameserver());
  use_servers(new_server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(ipv4("192.0.2.2"), held(a, 4));
  EXPECT_EQ(0u, old_server.queries());
}

TEST_F(DnsConf, ReloadAlwaysAnswersMinusOne) {
  DnsPeer server(answer_a("192.0.2.1"));
  EXPECT_EQ(-1, dns_reload_resolv_conf(dir_.write("r", server.nameserver()).c_str()));
}

TEST_F(DnsConf, LoadAddsWithoutEmptying) {
  DnsPeer first(name_error());
  DnsPeer second(answer_a("192.0.2.2"));
  use_servers(first.nameserver());
  EXPECT_EQ(0, dns_load_resolv_conf(dir_.write("more", second.nameserver()).c_str()));
  dns_answer a;
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(1u, first.queries());
  EXPECT_EQ(ipv4("192.0.2.2"), held(a, 4));
}

// --- hosts file -----------------------------------------------------------------

TEST_F(DnsConf, ThreeNamesOnOneLineMakeThreeEntries) {
  use_hosts("192.0.2.5 one.test two.test three.test\n");
  use_seq(1, 0);
  dns_answer a;
  for (const char *name : {"one.test", "two.test", "three.test"}) {
    ASSERT_EQ(0, resolve_a(name, &a)) << name;
    EXPECT_EQ(ipv4("192.0.2.5"), held(a, 4)) << name;
  }
}

TEST_F(DnsConf, LaterLineForTheSameNameComesFirst) {
  use_hosts("192.0.2.1 dup.test\n192.0.2.2 dup.test\n");
  use_seq(1, 0);
  dns_answer a;
  ASSERT_EQ(0, resolve_a("dup.test", &a));
  EXPECT_EQ(2u, a.count);
  EXPECT_EQ(ipv4("192.0.2.2") + ipv4("192.0.2.1"), held(a, 4));
}

TEST_F(DnsConf, CommentsEndTheNames) {
  use_hosts("# 192.0.2.9 hidden.test\n192.0.2.3 a.test #b.test\n192.0.2.4 c.test#d e.test\n");
  use_seq(1, 0);
  dns_answer a;
  EXPECT_NE(0, resolve_a("hidden.test", &a));
  EXPECT_EQ(0, resolve_a("a.test", &a));
  EXPECT_NE(0, resolve_a("b.test", &a));
  ASSERT_EQ(0, resolve_a("c.test", &a));
  EXPECT_EQ(ipv4("192.0.2.4"), held(a, 4));
  EXPECT_NE(0, resolve_a("e.test", &a));
}

TEST_F(DnsConf, AddressWithPortOrBadAddressSkipsTheLine) {
  use_hosts("192.0.2.3:80 port.test\nnot-an-address bad.test\n\n192.0.2.4 good.test\n");
  use_seq(1, 0);
  dns_answer a;
  EXPECT_NE(0, resolve_a("port.test", &a));
  EXPECT_NE(0, resolve_a("bad.test", &a));
  EXPECT_EQ(0, resolve_a("good.test", &a));
}

TEST_F(DnsConf, LastLineWithoutNewlineLosesItsLastCharacter) {
  use_hosts("192.0.2.6 namex");
  use_seq(1, 0);
  dns_answer a;
  EXPECT_NE(0, resolve_a("namex", &a));
  ASSERT_EQ(0, resolve_a("name", &a));
  EXPECT_EQ(ipv4("192.0.2.6"), held(a, 4));
}

TEST_F(DnsConf, MissingHostsFileGivesLocalhost) {
  EXPECT_EQ(0, dns_reload_hosts_conf(dir_.file("absent").c_str()));
  use_seq(1, 0);
  dns_answer a;
  ASSERT_EQ(0, resolve_a("localhost", &a));
  EXPECT_EQ(ipv4("127.0.0.1"), held(a, 4));
  ASSERT_EQ(0, dl_dns_resolv_timeout("localhost", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(ipv6("::1"), held(a, 16));
}

TEST_F(DnsConf, HostsDestroyEmptiesTheList) {
  use_hosts("192.0.2.6 gone.test\n");
  use_seq(1, 0);
  EXPECT_EQ(0, dns_hosts_conf_destroy());
  dns_answer a;
  EXPECT_NE(0, resolve_a("gone.test", &a));
}

// --- reload on change -------------------------------------------------------------

TEST_F(DnsConf, ChangedResolverFileIsReloadedOnceAndLogged) {
  DnsPeer first(answer_a("192.0.2.1"));
  DnsPeer second(answer_a("192.0.2.2"));
  std::string path = dir_.write("watched.conf", first.nameserver());
  ASSERT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, path.c_str()));
  EXPECT_EQ(-1, dl_dns_reload_resolv_conf());
  EXPECT_EQ(1, log().count(kCommon, kNotice, "resolv modified, reinit\n")) << log().text();
  dns_answer a;
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(ipv4("192.0.2.1"), held(a, 4));

  // Same time: not read again, even though the content changed.
  dir_.write("watched.conf", second.nameserver());
  timeval tv[2] = {{g_dl_cfg.resolv_conf_mtime, 0}, {g_dl_cfg.resolv_conf_mtime, 0}};
  ASSERT_EQ(0, utimes(path.c_str(), tv));
  log().clear();
  EXPECT_EQ(-1, dl_dns_reload_resolv_conf());
  EXPECT_FALSE(log().mentions("resolv modified")) << log().text();
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(ipv4("192.0.2.1"), held(a, 4));

  touch_ahead(path, 10);
  EXPECT_EQ(-1, dl_dns_reload_resolv_conf());
  EXPECT_EQ(1, log().count(kCommon, kNotice, "resolv modified, reinit\n")) << log().text();
  ASSERT_EQ(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(ipv4("192.0.2.2"), held(a, 4));
}

TEST_F(DnsConf, MissingResolverFileKeepsTheServers) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  ASSERT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, dir_.file("absent").c_str()));
  EXPECT_EQ(-1, dl_dns_reload_resolv_conf());
  EXPECT_FALSE(log().mentions("resolv modified"));
  dns_answer a;
  EXPECT_EQ(0, resolve_a("www.example.test", &a));
}

TEST_F(DnsConf, ChangedHostsFileIsReloadedOnce) {
  std::string path = dir_.write("watched.hosts", "192.0.2.1 w.test\n");
  ASSERT_EQ(0, dl_set_option(DL_OPT_HOSTS_PATH, path.c_str()));
  use_seq(1, 0);
  EXPECT_EQ(0, dl_dns_reload_hosts_conf());
  EXPECT_EQ(-1, dl_dns_reload_hosts_conf());
  EXPECT_FALSE(log().mentions("resolv modified"));
  dns_answer a;
  ASSERT_EQ(0, resolve_a("w.test", &a));
  EXPECT_EQ(ipv4("192.0.2.1"), held(a, 4));
}

TEST_F(DnsConf, DestroyForgetsTheTimeSoTheNextCheckReloads) {
  DnsPeer server(answer_a("192.0.2.1"));
  std::string path = dir_.write("watched.conf", server.nameserver());
  ASSERT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, path.c_str()));
  dl_dns_reload_resolv_conf();
  EXPECT_EQ(0, dl_dns_resolv_conf_destroy());
  EXPECT_EQ(0, g_dl_cfg.resolv_conf_mtime);
  dns_answer a;
  EXPECT_NE(0, resolve_a("www.example.test", &a));
  EXPECT_EQ(0u, server.queries());
  log().clear();
  EXPECT_EQ(-1, dl_dns_reload_resolv_conf());
  EXPECT_TRUE(log().has(kCommon, kNotice, "resolv modified, reinit\n"));
  EXPECT_EQ(0, resolve_a("www.example.test", &a));
}

TEST_F(DnsConf, ConnectChecksTheResolverFile) {
  DnsPeer server(answer_a("192.0.2.1"));
  std::string path = dir_.write("watched.conf", server.nameserver());
  ASSERT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, path.c_str()));
  uint32_t own = 1;
  ASSERT_EQ(0, dl_set_option(DL_OPT_USE_OWN_RESOLVER, &own));
  int fd = dl_connect("127.0.0.1", 1, 0, 1);
  if (fd >= 0) close(fd);
  EXPECT_TRUE(log().has(kCommon, kNotice, "resolv modified, reinit\n")) << log().text();
}

// --- socket addresses -----------------------------------------------------------------

TEST(DnsAddress, BracketedIpv6WithPort) {
  sockaddr_storage ss;
  int len = sizeof(ss);
  ASSERT_EQ(0, evutil_parse_sockaddr_port("[::1]:5353", reinterpret_cast<sockaddr *>(&ss), &len));
  EXPECT_EQ(28, len);
  const sockaddr_in6 *s6 = reinterpret_cast<const sockaddr_in6 *>(&ss);
  EXPECT_EQ(AF_INET6, s6->sin6_family);
  EXPECT_EQ(5353, ntohs(s6->sin6_port));
  EXPECT_EQ(0, memcmp(&s6->sin6_addr, &in6addr_loopback, 16));
}

TEST(DnsAddress, PlainAddressesHavePortZero) {
  sockaddr_storage ss;
  int len = sizeof(ss);
  ASSERT_EQ(0, evutil_parse_sockaddr_port("2001:db8::1", reinterpret_cast<sockaddr *>(&ss), &len));
  EXPECT_EQ(28, len);
  EXPECT_EQ(0, reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port);
  len = sizeof(ss);
  ASSERT_EQ(0, evutil_parse_sockaddr_port("192.0.2.1", reinterpret_cast<sockaddr *>(&ss), &len));
  EXPECT_EQ(16, len);
  const sockaddr_in *s4 = reinterpret_cast<const sockaddr_in *>(&ss);
  EXPECT_EQ(AF_INET, s4->sin_family);
  EXPECT_EQ(0, s4->sin_port);
  EXPECT_EQ(ipv4("192.0.2.1"), std::string(reinterpret_cast<const char *>(&s4->sin_addr), 4));
}

TEST(DnsAddress, PortMustBeOneTo65535) {
  sockaddr_storage ss;
  int len = sizeof(ss);
  sockaddr *out = reinterpret_cast<sockaddr *>(&ss);
  EXPECT_EQ(-1, evutil_parse_sockaddr_port("127.0.0.1:0", out, &len));
  len = sizeof(ss);
  EXPECT_EQ(-1, evutil_parse_sockaddr_port("127.0.0.1:65536", out, &len));
  len = sizeof(ss);
  ASSERT_EQ(0, evutil_parse_sockaddr_port("127.0.0.1:65535", out, &len));
  EXPECT_EQ(65535, ntohs(reinterpret_cast<sockaddr_in *>(&ss)->sin_port));
}

TEST(DnsAddress, ShortBufferOrBadTextIsRefused) {
  sockaddr_storage ss;
  sockaddr *out = reinterpret_cast<sockaddr *>(&ss);
  int len = 15;
  EXPECT_EQ(-1, evutil_parse_sockaddr_port("192.0.2.1", out, &len));
  len = 27;
  EXPECT_EQ(-1, evutil_parse_sockaddr_port("::1", out, &len));
  len = sizeof(ss);
  EXPECT_EQ(-1, evutil_parse_sockaddr_port("not.an.address", out, &len));
  len = sizeof(ss);
  EXPECT_EQ(-1, evutil_parse_sockaddr_port("[192.0.2.1]:53", out, &len));
}

// --- against dnsmasq ----------------------------------------------------------------------

class DnsMasq : public ResolverTest {
 protected:
  void point_at(quarry_test::RealServer &server) {
    use_servers("nameserver 127.0.0.1:" + std::to_string(server.port("dns")) + "\n");
  }
};

TEST_F(DnsMasq, AddressesOfAName) {
  QUARRY_USE_SERVER(dnsmasq, "dnsmasq");
  point_at(dnsmasq);
  dns_answer a;
  ASSERT_EQ(0, resolve_a("prov.phone.test", &a));
  EXPECT_EQ(ipv4("192.0.2.10"), held(a, 4));
  EXPECT_EQ(60u, a.ttl);
  ASSERT_EQ(0, dl_dns_resolv_timeout("prov.phone.test", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(ipv6("2001:db8::10"), held(a, 16));
  ASSERT_EQ(0, resolve_a("multi.phone.test", &a));
  EXPECT_EQ(2u, a.count);
}

TEST_F(DnsMasq, CnameChainEndsInTheAddress) {
  QUARRY_USE_SERVER(dnsmasq, "dnsmasq");
  point_at(dnsmasq);
  dns_answer a;
  ASSERT_EQ(0, resolve_a("chain.phone.test", &a));
  EXPECT_EQ(ipv4("192.0.2.10"), held(a, 4));
}

TEST_F(DnsMasq, ReverseName) {
  QUARRY_USE_SERVER(dnsmasq, "dnsmasq");
  point_at(dnsmasq);
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("10.2.0.192.in-addr.arpa", kTypePtr, kClassIn, &a, 1, 1));
  EXPECT_STREQ("prov.phone.test", reinterpret_cast<const char *>(&a.count));
}

TEST_F(DnsMasq, UnknownNameAndMissingFamilyFail) {
  QUARRY_USE_SERVER(dnsmasq, "dnsmasq");
  point_at(dnsmasq);
  dns_answer a;
  EXPECT_NE(0, resolve_a("nobody.phone.test", &a));
  EXPECT_EQ(-70, resolve_a("v6only.phone.test", &a));
}

TEST_F(DnsMasq, TruncatedAnswerIsNoAnswer) {
  QUARRY_USE_SERVER(dnsmasq, "dnsmasq");
  point_at(dnsmasq);
  dns_answer a;
  // 40 records do not fit a 512-byte UDP reply: dnsmasq sets TC.
  EXPECT_NE(0, resolve_a("big.phone.test", &a));
  EXPECT_EQ(0u, a.count);
}

}  // namespace

// The own resolver against a real dnsmasq on loopback (zone phone.test, see
// tests/servers/dnsmasq.sh), reached through a temporary resolver file set
// by option; and an HTTP download from nginx by a name only dnsmasq knows.
#include <arpa/inet.h>
#include <string.h>

#include <string>

#include "tests/real/http_real_support.h"

namespace quarry_test {
namespace {

constexpr int kA = 1;
constexpr int kAAAA = 28;
constexpr int kPtr = 12;
constexpr int kIn = 1;

class Dnsmasq : public HttpRealTest {
 protected:
  void SetUp() override {
    HttpRealTest::SetUp();
    dns_ = &RealServer::shared("dnsmasq");
    if (!dns_->ok()) {
      if (dns_->skippable()) GTEST_SKIP() << dns_->error();
      FAIL() << dns_->error();
    }
    std::string resolv =
        dir_.write("resolv.conf", "nameserver 127.0.0.1:" + std::to_string(dns_->port("dns")) + "\n");
    ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv.c_str()), 0);
    std::string hosts = dir_.write("hosts", "192.0.2.77 hostsonly.phone.test\n");
    ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts.c_str()), 0);
    // What every connect does first: the new files are read now.
    dl_dns_reload_resolv_conf();
    dl_dns_reload_hosts_conf();
    dl_dns_set_timeout(1);
    log_->clear();
  }

  int resolve(const char *name, int type) {
    memset(&answer_, 0, sizeof(answer_));
    return dl_dns_resolv(name, type, kIn, &answer_);
  }
  std::string addr(unsigned i, int family = AF_INET) const {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, answer_.addr + (family == AF_INET ? 4 : 16) * i, text, sizeof(text));
    return text;
  }

  RealServer *dns_ = nullptr;
  dns_answer answer_ = {};
};

TEST_F(Dnsmasq, AddressRecord) {
  ASSERT_EQ(resolve("prov.phone.test", kA), 0);
  EXPECT_EQ(answer_.type, 1u);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(answer_.ttl, 60u);
  EXPECT_EQ(addr(0), "192.0.2.10");
}

TEST_F(Dnsmasq, Ipv6AddressRecord) {
  ASSERT_EQ(resolve("prov.phone.test", kAAAA), 0);
  EXPECT_EQ(answer_.type, 28u);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(addr(0, AF_INET6), "2001:db8::10");
}

TEST_F(Dnsmasq, SeveralAddresses) {
  ASSERT_EQ(resolve("multi.phone.test", kA), 0);
  ASSERT_EQ(answer_.count, 2u);
  std::string both = addr(0) + " " + addr(1);
  EXPECT_TRUE(both == "192.0.2.12 192.0.2.13" || both == "192.0.2.13 192.0.2.12") << both;
}

TEST_F(Dnsmasq, CnameChainEndsInTheAddress) {
  ASSERT_EQ(resolve("chain.phone.test", kA), 0);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(addr(0), "192.0.2.10");
}

TEST_F(Dnsmasq, ReverseName) {
  ASSERT_EQ(resolve("10.2.0.192.in-addr.arpa", kPtr), 0);
  EXPECT_EQ(answer_.type, 12u);
  EXPECT_STREQ(reinterpret_cast<const char *>(&answer_.count), "prov.phone.test");
}

TEST_F(Dnsmasq, NonExistentNameIsNoAnswer) {
  EXPECT_EQ(resolve("nope.phone.test", kA), -1);
}

TEST_F(Dnsmasq, NameWithoutThatTypeIsNoData) {
  EXPECT_EQ(resolve("v6only.phone.test", kA), -70);
}

TEST_F(Dnsmasq, TruncatedReplyIsNoAnswer) {
  // Forty addresses do not fit a UDP reply: dnsmasq sets TC.
  EXPECT_EQ(resolve("big.phone.test", kA), -1);
}

TEST_F(Dnsmasq, HostsFileComesFirst) {
  ASSERT_EQ(resolve("hostsonly.phone.test", kA), 0);
  EXPECT_EQ(addr(0), "192.0.2.77");
  EXPECT_EQ(answer_.ttl, 0u);
}

TEST_F(Dnsmasq, Ipv6ServerAddress) {
  QUARRY_REQUIRE_IPV6(*dns_);
  std::string resolv =
      dir_.write("resolv6.conf", "nameserver [::1]:" + std::to_string(dns_->port("dns")) + "\n");
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv.c_str()), 0);
  dl_dns_reload_resolv_conf();
  ASSERT_EQ(resolve("dual.phone.test", kAAAA), 0);
  EXPECT_EQ(addr(0, AF_INET6), "2001:db8::20");
}

TEST_F(Dnsmasq, DownloadFromNginxByANameOnlyDnsmasqKnows) {
  QUARRY_USE_SERVER(nginx, "nginx");
  uint32_t own = 1;
  ASSERT_EQ(dl_set_option(DL_OPT_USE_OWN_RESOLVER, &own), 0);
  std::string url =
      "http://loop.phone.test:" + std::to_string(nginx.port("http")) + "/files/hello.txt";
  ASSERT_EQ(download(url, "hello.txt"), 0) << err_.msg;
  EXPECT_EQ(saved("hello.txt"), "hello world\n");
  EXPECT_TRUE(log_->mentions("Connecting IP = 127.0.0.1, Port = " + std::to_string(nginx.port("http"))));
  EXPECT_FALSE(log_->mentions("getaddrinfo"));
}

}  // namespace
}  // namespace quarry_test

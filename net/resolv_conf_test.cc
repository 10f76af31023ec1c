#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net/conf_test_support.h"
#include "net/net_test_support.h"

namespace quarry_test {
namespace {

using Servers = std::vector<std::string>;

class ResolvConf : public NetTest {
 protected:
  Servers load(const std::string &text) {
    std::string path = dir_.write("resolv.conf", text);
    EXPECT_EQ(dns_load_resolv_conf_real(ctx_.get(), path.c_str()), 0);
    return servers_of(ctx_.get());
  }
  std::string parse_line(const std::string &value) {
    return "Unable to parse nameserver address " + value;
  }
  TempDir dir_;
  PrivateContext ctx_;
};

TEST_F(ResolvConf, MissingFileGivesLoopbackOnPort53) {
  ASSERT_EQ(dns_load_resolv_conf_real(ctx_.get(), dir_.file("none").c_str()), 0);
  EXPECT_EQ(servers_of(ctx_.get()), Servers({"127.0.0.1 53"}));
  EXPECT_EQ(ctx_.get()->server_count, 1);
}

TEST_F(ResolvConf, ServersInFileOrderOnPort53) {
  EXPECT_EQ(load("nameserver 192.0.2.1\nnameserver 2001:db8::1\n"),
            Servers({"192.0.2.1 53", "[2001:db8::1] 53"}));
}

TEST_F(ResolvConf, EightServersKeepTheFirstSix) {
  std::string text;
  for (int i = 1; i <= 8; ++i) text += "nameserver 192.0.2." + std::to_string(i) + "\n";
  Servers got = load(text);
  ASSERT_EQ(got.size(), 6u);
  EXPECT_EQ(got.front(), "192.0.2.1 53");
  EXPECT_EQ(got.back(), "192.0.2.6 53");
  EXPECT_EQ(ctx_.get()->server_count, 6);
}

TEST_F(ResolvConf, BracketedIpv6WithPort) {
  EXPECT_EQ(load("nameserver [2001:db8::53]:5353\n"), Servers({"[2001:db8::53] 5353"}));
}

TEST_F(ResolvConf, Ipv4WithPort) {
  EXPECT_EQ(load("nameserver 192.0.2.1:5300\n"), Servers({"192.0.2.1 5300"}));
}

TEST_F(ResolvConf, PortZeroIsRefusedWithTheParseMessage) {
  EXPECT_EQ(load("nameserver 192.0.2.1:0\nnameserver 192.0.2.2\n"), Servers({"192.0.2.2 53"}));
  EXPECT_TRUE(log().has(kDcmn, kError, parse_line("192.0.2.1:0")));
}

TEST_F(ResolvConf, UnparsableServerIsLoggedAndSkipped) {
  EXPECT_EQ(load("nameserver dns.example.test\n"), Servers());
  EXPECT_TRUE(log().has(kDcmn, kError, parse_line("dns.example.test")));
}

TEST_F(ResolvConf, LastLineWithoutNewlineLosesItsLastCharacter) {
  EXPECT_EQ(load("nameserver 192.0.2.1\nnameserver 192.0.2.12"),
            Servers({"192.0.2.1 53", "192.0.2.1 53"}));
}

TEST_F(ResolvConf, DuplicatesAreKept) {
  EXPECT_EQ(load("nameserver 192.0.2.1\nnameserver 192.0.2.1\n"),
            Servers({"192.0.2.1 53", "192.0.2.1 53"}));
}

TEST_F(ResolvConf, OtherKeywordsAndCommentsAreDropped) {
  EXPECT_EQ(load("# nameserver 192.0.2.9\n"
                 "domain example.test\n"
                 "search a.test b.test c.test\n"
                 "options ndots:2 timeout:1\n"
                 "; nameserver 192.0.2.8\n"
                 "\n"
                 "\tnameserver\t192.0.2.1   extra\n"
                 "nameserver\n"
                 "sortlist 10.0.0.0\n"),
            Servers({"192.0.2.1 53"}));
}

TEST_F(ResolvConf, LoadingAgainAppends) {
  std::string path = dir_.write("resolv.conf", "nameserver 192.0.2.1\n");
  dns_load_resolv_conf_real(ctx_.get(), path.c_str());
  dns_load_resolv_conf_real(ctx_.get(), path.c_str());
  EXPECT_EQ(servers_of(ctx_.get()), Servers({"192.0.2.1 53", "192.0.2.1 53"}));
}

TEST_F(ResolvConf, ReloadReplacesAndReturnsMinusOne) {
  load("nameserver 192.0.2.1\n");
  std::string path = dir_.write("resolv.conf", "nameserver 192.0.2.2\n");
  EXPECT_EQ(dns_reload_resolv_conf_real(ctx_.get(), path.c_str()), -1);
  EXPECT_EQ(servers_of(ctx_.get()), Servers({"192.0.2.2 53"}));
}

TEST_F(ResolvConf, LongLinesAreReadInPieces) {
  // 1022 characters fill one read; the rest is read as a line of its own.
  std::string text = std::string(1022, ' ') + "nameserver 192.0.2.1\n";
  EXPECT_EQ(load(text), Servers({"192.0.2.1 53"}));
}

TEST_F(ResolvConf, LineStartingWithAZeroByteIsHarmless) {
  const char raw[] = "\0nameserver 192.0.2.7\nnameserver 192.0.2.1\n";
  std::string text(raw, sizeof(raw) - 1);
  EXPECT_EQ(load(text), Servers({"192.0.2.1 53"}));
}

TEST_F(ResolvConf, DestroyEmptiesTheList) {
  load("nameserver 192.0.2.1\n");
  EXPECT_EQ(dns_resolv_conf_destroy_real(ctx_.get()), 0);
  EXPECT_EQ(servers_of(ctx_.get()), Servers());
  EXPECT_EQ(ctx_.get()->server_count, 0);
}

TEST_F(ResolvConf, NullContextIsRefused) {
  EXPECT_EQ(dns_conf_base_st_init(nullptr), -1);
  EXPECT_EQ(dns_conf_base_st_destroy(nullptr), -1);
  EXPECT_EQ(dns_load_resolv_conf_real(nullptr, "x"), -1);
}

}  // namespace
}  // namespace quarry_test

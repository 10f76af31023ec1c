#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net/conf_test_support.h"
#include "net/net_test_support.h"

namespace quarry_test {
namespace {

using Hosts = std::vector<std::string>;

class HostsConf : public NetTest {
 protected:
  Hosts load(const std::string &text) {
    std::string path = dir_.write("hosts", text);
    EXPECT_EQ(dns_load_hosts_real(ctx_.get(), path.c_str()), 0);
    return hosts_of(ctx_.get());
  }
  TempDir dir_;
  PrivateContext ctx_;
};

TEST_F(HostsConf, MissingFileGivesLocalhostForBothFamilies) {
  ASSERT_EQ(dns_load_hosts_real(ctx_.get(), dir_.file("none").c_str()), 0);
  EXPECT_EQ(hosts_of(ctx_.get()), Hosts({"localhost [::1] 0", "localhost 127.0.0.1 0"}));
}

TEST_F(HostsConf, ThreeNamesOnALineGiveThreeEntries) {
  EXPECT_EQ(load("192.0.2.1 a.test b.test c.test\n"),
            Hosts({"c.test 192.0.2.1 0", "b.test 192.0.2.1 0", "a.test 192.0.2.1 0"}));
  EXPECT_EQ(ctx_.get()->hosts_count, 3);
}

TEST_F(HostsConf, LaterLinesComeFirst) {
  EXPECT_EQ(load("192.0.2.1 same.test\n2001:db8::2\tsame.test\n"),
            Hosts({"same.test [2001:db8::2] 0", "same.test 192.0.2.1 0"}));
}

TEST_F(HostsConf, CommentsEndTheLine) {
  EXPECT_EQ(load("# 192.0.2.9 commented.test\n"
                 "192.0.2.1 one.test # two.test\n"
                 "192.0.2.2 three.test#four.test five.test\n"
                 "#192.0.2.3 six.test\n"),
            Hosts({"three.test 192.0.2.2 0", "one.test 192.0.2.1 0"}));
}

TEST_F(HostsConf, UnusableAddressesSkipTheLine) {
  EXPECT_EQ(load("not-an-address x.test\n"
                 "192.0.2.1:80 port.test\n"
                 "[2001:db8::1]:80 port6.test\n"
                 "\n"
                 "   \n"
                 "192.0.2.2 ok.test\n"),
            Hosts({"ok.test 192.0.2.2 0"}));
}

TEST_F(HostsConf, BracketedIpv6WithoutPortIsTaken) {
  EXPECT_EQ(load("[::1] six.test\n"), Hosts({"six.test [::1] 0"}));
}

TEST_F(HostsConf, LastLineWithoutNewlineLosesItsLastCharacter) {
  EXPECT_EQ(load("192.0.2.1 name.test"), Hosts({"name.tes 192.0.2.1 0"}));
}

TEST_F(HostsConf, LongNamesAreKeptWhole) {
  std::string name(900, 'n');
  EXPECT_EQ(load("192.0.2.1 " + name + "\n"), Hosts({name + " 192.0.2.1 0"}));
}

TEST_F(HostsConf, LineStartingWithAZeroByteIsHarmless) {
  const char raw[] = "\0" "192.0.2.7 z.test\n192.0.2.1 a.test\n";
  std::string text(raw, sizeof(raw) - 1);
  EXPECT_EQ(load(text), Hosts({"a.test 192.0.2.1 0"}));
}

TEST_F(HostsConf, ReloadReplaces) {
  load("192.0.2.1 a.test\n");
  std::string path = dir_.write("hosts", "192.0.2.2 b.test\n");
  EXPECT_EQ(dns_reload_hosts_conf_real(ctx_.get(), path.c_str()), 0);
  EXPECT_EQ(hosts_of(ctx_.get()), Hosts({"b.test 192.0.2.2 0"}));
}

TEST_F(HostsConf, DestroyEmptiesTheList) {
  load("192.0.2.1 a.test\n");
  EXPECT_EQ(dns_hosts_conf_destroy_real(ctx_.get()), 0);
  EXPECT_EQ(hosts_of(ctx_.get()), Hosts());
  EXPECT_EQ(ctx_.get()->hosts_count, 0);
}

}  // namespace
}  // namespace quarry_test

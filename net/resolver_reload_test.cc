#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <utime.h>

#include <string>

#include "net/net_test_support.h"

namespace quarry_test {
namespace {

constexpr int kTypeA = 1;
constexpr int kTypeAAAA = 28;
constexpr int kClassIn = 1;
constexpr time_t kOldTime = 1000000;
constexpr time_t kNewTime = 2000000;
const char kResolvLine[] = "resolv modified, reinit\n";

bool set_mtime(const std::string &path, time_t when) {
  utimbuf times = {when, when};
  return utime(path.c_str(), &times) == 0;
}

class ReloadOnChange : public NetTest {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    resolv_ = dir_.write("resolv.conf", "nameserver 127.0.0.1\n");
    hosts_ = dir_.write("hosts", "127.0.0.1 localhost\n");
    ASSERT_TRUE(set_mtime(resolv_, kOldTime));
    ASSERT_TRUE(set_mtime(hosts_, kOldTime));
  }
  TempDir dir_;
  std::string resolv_;
  std::string hosts_;
};

TEST_F(ReloadOnChange, ChangedResolverFileIsRecordedAndLogged) {
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv_.c_str()), 0);
  // The reload's own result, which is always -1.
  EXPECT_EQ(dl_dns_reload_resolv_conf(), -1);
  EXPECT_EQ(g_dl_cfg.resolv_conf_mtime, kOldTime);
  EXPECT_EQ(log().count(kDcmn, kNotice, kResolvLine), 1);
}

TEST_F(ReloadOnChange, UnchangedResolverFileIsLeftAlone) {
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv_.c_str()), 0);
  dl_dns_reload_resolv_conf();
  log().clear();
  EXPECT_EQ(dl_dns_reload_resolv_conf(), -1);
  EXPECT_FALSE(log().mentions(kResolvLine));
}

TEST_F(ReloadOnChange, TouchedResolverFileIsReloadedAgain) {
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv_.c_str()), 0);
  dl_dns_reload_resolv_conf();
  ASSERT_TRUE(set_mtime(resolv_, kNewTime));
  dl_dns_reload_resolv_conf();
  EXPECT_EQ(g_dl_cfg.resolv_conf_mtime, kNewTime);
  EXPECT_EQ(log().count(kDcmn, kNotice, kResolvLine), 2);
}

TEST_F(ReloadOnChange, MissingResolverFileKeepsTheRecordedTime) {
  int32_t before = g_dl_cfg.resolv_conf_mtime;
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, dir_.file("none").c_str()), 0);
  EXPECT_EQ(dl_dns_reload_resolv_conf(), -1);
  EXPECT_EQ(g_dl_cfg.resolv_conf_mtime, before);
  EXPECT_FALSE(log().mentions(kResolvLine));
}

TEST_F(ReloadOnChange, EmptyResolverPathIsNotReloaded) {
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, ""), 0);
  EXPECT_EQ(dl_dns_reload_resolv_conf(), -1);
  EXPECT_FALSE(log().mentions(kResolvLine));
}

TEST_F(ReloadOnChange, PathFillingTheWholeFieldIsReadSafely) {
  std::string longest(DL_PATH_MAX_LEN, 'a');
  longest[0] = '/';
  ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, longest.c_str()), 0);
  ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, longest.c_str()), 0);
  EXPECT_EQ(dl_dns_reload_resolv_conf(), -1);
  EXPECT_EQ(dl_dns_reload_hosts_conf(), -1);
}

TEST_F(ReloadOnChange, ChangedHostsFileIsReloadedWithoutALogLine) {
  ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts_.c_str()), 0);
  EXPECT_EQ(dl_dns_reload_hosts_conf(), 0);
  EXPECT_EQ(g_dl_cfg.hosts_mtime, kOldTime);
  EXPECT_EQ(log().text(), "");
}

TEST_F(ReloadOnChange, UnchangedHostsFileIsLeftAlone) {
  ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts_.c_str()), 0);
  ASSERT_EQ(dl_dns_reload_hosts_conf(), 0);
  EXPECT_EQ(dl_dns_reload_hosts_conf(), -1);
  ASSERT_TRUE(set_mtime(hosts_, kNewTime));
  EXPECT_EQ(dl_dns_reload_hosts_conf(), 0);
  EXPECT_EQ(g_dl_cfg.hosts_mtime, kNewTime);
}

TEST_F(ReloadOnChange, MissingHostsFileKeepsTheRecordedTime) {
  int32_t before = g_dl_cfg.hosts_mtime;
  ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, dir_.file("none").c_str()), 0);
  EXPECT_EQ(dl_dns_reload_hosts_conf(), -1);
  EXPECT_EQ(g_dl_cfg.hosts_mtime, before);
}

using ResolveLiteral = NetTest;

TEST_F(ResolveLiteral, Ipv4LiteralAnswersTypeA) {
  dns_answer answer;
  memset(&answer, 0xff, sizeof(answer));
  ASSERT_EQ(dl_dns_resolv("192.0.2.7", kTypeA, kClassIn, &answer), 0);
  EXPECT_EQ(answer.type, 1u);
  EXPECT_EQ(answer.count, 1u);
  EXPECT_EQ(answer.ttl, 0u);
  in_addr want;
  ASSERT_EQ(inet_pton(AF_INET, "192.0.2.7", &want), 1);
  EXPECT_EQ(memcmp(answer.addr, &want, sizeof(want)), 0);
}

TEST_F(ResolveLiteral, Ipv6LiteralAnswersTypeAaaa) {
  dns_answer answer;
  ASSERT_EQ(dl_dns_resolv("2001:db8::5", kTypeAAAA, kClassIn, &answer), 0);
  EXPECT_EQ(answer.type, 28u);
  EXPECT_EQ(answer.count, 1u);
  in6_addr want;
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::5", &want), 1);
  EXPECT_EQ(memcmp(answer.addr, &want, sizeof(want)), 0);
}

TEST_F(ResolveLiteral, LiteralOfTheOtherFamilyIsNotAnswered) {
  dns_answer answer;
  EXPECT_NE(dl_dns_resolv("::1", kTypeA, kClassIn, &answer), 0);
  EXPECT_NE(dl_dns_resolv("127.0.0.1", kTypeAAAA, kClassIn, &answer), 0);
}

TEST_F(ResolveLiteral, NullArgumentsAreRefused) {
  dns_answer answer;
  EXPECT_NE(dl_dns_resolv(nullptr, kTypeA, kClassIn, &answer), 0);
  EXPECT_NE(dl_dns_resolv("127.0.0.1", kTypeA, kClassIn, nullptr), 0);
}

}  // namespace
}  // namespace quarry_test

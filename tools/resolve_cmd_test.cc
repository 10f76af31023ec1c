// quarry resolve as a caller runs it.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "net/dns_test_peer.h"
#include "tools/cli_test_support.h"

namespace quarry_test {
namespace {

using quarry_cli_test::CliRun;

// Runs "quarry resolve |args|" (standard error joined to standard output).
CliRun resolve_cli(const std::string &args) { return quarry_cli_test::run("resolve " + args); }

class ResolveCommand : public ::testing::Test {
 protected:
  TempDir dir_;
  std::string empty_resolv_ = dir_.write("resolv.conf", "");
};

TEST_F(ResolveCommand, NameFromTheHostsFile) {
  std::string hosts = dir_.write("hosts", "192.0.2.5 box.test\n192.0.2.6 box.test\n");
  CliRun r = resolve_cli("box.test --hosts " + hosts + " --resolv " + empty_resolv_);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "192.0.2.6\n192.0.2.5\n");
}

TEST_F(ResolveCommand, Ipv6AddressFromAServer) {
  DnsPeer peer(answer_with([](const std::string &q) { return reply_to(q, {aaaa_record("2001:db8::7")}); }));
  std::string resolv = dir_.write("servers.conf", peer.nameserver_line());
  CliRun r = resolve_cli("v6.test aaaa --resolv " + resolv + " --hosts " + dir_.file("none") +
                         " --timeout 1 --passes 1");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "2001:db8::7\n");
  EXPECT_EQ(peer.query_count(), 1u);
}

TEST_F(ResolveCommand, ReverseName) {
  DnsPeer peer(answer_with([](const std::string &q) {
    return reply_to(q, {record(pointer(kQuestionOffset), kPtr, kIn, 60, wire_name("box.test"))});
  }));
  std::string resolv = dir_.write("servers.conf", peer.nameserver_line());
  CliRun r = resolve_cli("5.2.0.192.in-addr.arpa ptr --resolv " + resolv + " --timeout 1");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "box.test\n");
}

TEST_F(ResolveCommand, NoAnswerFails) {
  std::string hosts = dir_.write("hosts", "");
  CliRun r = resolve_cli("nothing.test --hosts " + hosts + " --resolv " + empty_resolv_);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "quarry: nothing.test: no answer (-1)\n");
}

TEST_F(ResolveCommand, BadArgumentsShowUsage) {
  EXPECT_EQ(resolve_cli("").status, 2);
  EXPECT_EQ(resolve_cli("a.test mx").status, 2);
  EXPECT_EQ(resolve_cli("a.test --timeout 0").status, 2);
  EXPECT_EQ(resolve_cli("a.test --bogus").status, 2);
}

}  // namespace
}  // namespace quarry_test

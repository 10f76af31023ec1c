// How long the own resolver waits for servers that never answer: each
// server of each pass for the time-out. Time-outs of 1 s, tolerant bounds.
#include <chrono>
#include <string>

#include "net/dns_test_peer.h"

namespace quarry_test {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

using DnsTiming = DnsTest;

TEST_F(DnsTiming, TwoSilentServersTwoPassesTakeFourTimeOuts) {
  DnsPeer first(silent());
  DnsPeer second(silent());
  use_servers({first.nameserver_line(), second.nameserver_line()});
  auto start = Clock::now();
  EXPECT_EQ(resolve("nobody.answers.test", kA, 2), -1);
  double took = seconds_since(start);
  EXPECT_GE(took, 3.9);
  EXPECT_LT(took, 7.0);
  EXPECT_EQ(first.query_count(), 2u);
  EXPECT_EQ(second.query_count(), 2u);
}

TEST_F(DnsTiming, ConfiguredTimeOutAndPassesApplyToResolv) {
  DnsPeer peer(silent());
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(dl_dns_set_timeout(1), 0);
  ASSERT_EQ(dl_dns_set_nretry(2), 0);
  auto start = Clock::now();
  EXPECT_NE(dl_dns_resolv("nobody.answers.test", kA, kIn, &answer_), 0);
  double took = seconds_since(start);
  EXPECT_GE(took, 1.9);
  EXPECT_LT(took, 4.5);
  EXPECT_EQ(peer.query_count(), 2u);
}

TEST_F(DnsTiming, SilentServerThenAnAnsweringOne) {
  DnsPeer first(silent());
  DnsPeer second(answer_with([](const std::string &q) { return reply_to(q, {a_record("192.0.2.1")}); }));
  use_servers({first.nameserver_line(), second.nameserver_line()});
  auto start = Clock::now();
  ASSERT_EQ(resolve("late.test", kA, 2), 0);
  double took = seconds_since(start);
  EXPECT_GE(took, 0.9);
  EXPECT_LT(took, 3.0);
  EXPECT_EQ(first.query_count(), 1u);
}

}  // namespace
}  // namespace quarry_test

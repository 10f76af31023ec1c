// The stub resolver: its settings, literals, the hosts file and the order
// of sources, the query on the wire and every check of a reply, against
// scripted name servers on loopback.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/acceptance/dns_peer.h"

namespace {

using namespace dns_acceptance;
using Clock = std::chrono::steady_clock;

class Dns : public ResolverTest {};

Reply answer_a(const char *addr, uint32_t ttl = 300) {
  Reply r;
  r.answers.push_back(rr(kTypeA, ipv4(addr), ttl));
  return r;
}

Reply refused(unsigned rcode) {
  Reply r;
  r.rcode = rcode;
  return r;
}

// --- settings ---------------------------------------------------------------

TEST_F(Dns, TimeoutBelowOneIsRefused) {
  EXPECT_EQ(-1, dl_dns_set_timeout(0));
  EXPECT_EQ(-1, dl_dns_set_timeout(-3));
  EXPECT_EQ(0, dl_dns_set_timeout(1));
}

TEST_F(Dns, PassesBelowOneAreRefused) {
  EXPECT_EQ(-1, dl_dns_set_nretry(0));
  EXPECT_EQ(-1, dl_dns_set_nretry(-1));
  EXPECT_EQ(0, dl_dns_set_nretry(1));
}

TEST_F(Dns, SequenceNullOrLongerThanTwoIsRefused) {
  int seq[3] = {2, 1, 2};
  EXPECT_EQ(-1, dl_dns_set_resolv_seq(nullptr, 1));
  EXPECT_EQ(-1, dl_dns_set_resolv_seq(seq, 3));
  EXPECT_EQ(0, dl_dns_set_resolv_seq(seq, 2));
}

TEST_F(Dns, ConfiguredPassesAndTimeoutAreUsed) {
  DnsPeer quiet(silent());
  use_servers(quiet.nameserver());
  ASSERT_EQ(0, dl_dns_set_nretry(1));
  ASSERT_EQ(0, dl_dns_set_timeout(1));
  dns_answer a;
  Clock::time_point start = Clock::now();
  EXPECT_NE(0, dl_dns_resolv("nobody.example.test", kTypeA, kClassIn, &a));
  double took = seconds_since(start);
  EXPECT_EQ(1u, quiet.queries());
  EXPECT_GT(took, 0.8);
  EXPECT_LT(took, 3.0);
}

TEST_F(Dns, EmptySequenceAsksNothing) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  use_hosts("192.0.2.9 here.example.test\n");
  int seq[2] = {2, 1};
  ASSERT_EQ(0, dl_dns_set_resolv_seq(seq, 0));
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("here.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, server.queries());
}

// --- literals -----------------------------------------------------------------

TEST_F(Dns, Ipv4LiteralAnswersAtOnceWithoutQuery) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  dns_answer a;
  memset(&a, 0x5a, sizeof(a));
  ASSERT_EQ(0, dl_dns_resolv_timeout("192.0.2.7", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(1u, a.type);
  EXPECT_EQ(1u, a.count);
  EXPECT_EQ(0u, a.ttl);
  EXPECT_EQ(ipv4("192.0.2.7"), held(a, 4));
  EXPECT_EQ(0u, server.queries());
}

TEST_F(Dns, Ipv4LiteralAskedAsAaaaFails) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(-1, dl_dns_resolv_timeout("192.0.2.7", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, server.queries());
}

TEST_F(Dns, Ipv6LiteralAnswersAaaaAndFailsA) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("2001:db8::7", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(28u, a.type);
  EXPECT_EQ(1u, a.count);
  EXPECT_EQ(ipv6("2001:db8::7"), held(a, 16));
  EXPECT_EQ(-1, dl_dns_resolv_timeout("2001:db8::7", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, server.queries());
}

// --- hosts file and order of sources ------------------------------------------

TEST_F(Dns, HostsNameNeverReachesTheNetworkByDefault) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  use_hosts("192.0.2.9 here.example.test\n");
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("here.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(1u, a.count);
  EXPECT_EQ(0u, a.ttl);
  EXPECT_EQ(ipv4("192.0.2.9"), held(a, 4));
  EXPECT_EQ(0u, server.queries());
}

TEST_F(Dns, NameMissingFromHostsGoesToTheServers) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  use_hosts("192.0.2.9 here.example.test\n");
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("there.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(ipv4("192.0.2.1"), held(a, 4));
  EXPECT_EQ(1u, server.queries());
}

TEST_F(Dns, HostsOnlySequenceSendsNothing) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  use_seq(1, 0);
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("there.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, server.queries());
}

TEST_F(Dns, ServersFirstThenHostsFile) {
  DnsPeer server(refused(3));
  use_servers(server.nameserver());
  use_hosts("192.0.2.9 here.example.test\n");
  use_seq(2, 1);
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("here.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(ipv4("192.0.2.9"), held(a, 4));
  EXPECT_EQ(1u, server.queries());
}

TEST_F(Dns, HostsNamesCompareWithCase) {
  use_hosts("192.0.2.9 Here.example.test\n");
  use_seq(1, 0);
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("here.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(0, dl_dns_resolv_timeout("Here.example.test", kTypeA, kClassIn, &a, 1, 1));
}

TEST_F(Dns, HostsEntriesMatchTheAskedFamily) {
  use_hosts("2001:db8::5 six.example.test\n");
  use_seq(1, 0);
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("six.example.test", kTypeA, kClassIn, &a, 1, 1));
  ASSERT_EQ(0, dl_dns_resolv_timeout("six.example.test", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(ipv6("2001:db8::5"), held(a, 16));
}

// --- the query on the wire ------------------------------------------------------

TEST_F(Dns, QueryIsOneRecursiveQuestion) {
  DnsPeer server(answer_a("192.0.2.50", 300));
  use_servers(server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  ASSERT_EQ(1u, server.queries());
  std::string q = server.query(0);
  std::string want = u16(0x0100) + u16(1) + u16(0) + u16(0) + u16(0) +
                     labels("www.example.test") + u16(kTypeA) + u16(kClassIn);
  EXPECT_EQ(want, q.substr(2));
  EXPECT_EQ(1u, a.type);
  EXPECT_EQ(1u, a.count);
  EXPECT_EQ(1u, a.flags & 1u);
  EXPECT_EQ(300u, a.ttl);
  EXPECT_EQ(ipv4("192.0.2.50"), held(a, 4));
}

TEST_F(Dns, NameEndingInDotEndsWithTheEmptyLabel) {
  DnsPeer server(refused(3));
  use_servers(server.nameserver());
  dns_answer a;
  dl_dns_resolv_timeout("www.example.test.", kTypeAaaa, kClassIn, &a, 1, 1);
  ASSERT_EQ(1u, server.queries());
  EXPECT_EQ(labels("www.example.test") + u16(kTypeAaaa) + u16(kClassIn),
            server.query(0).substr(12));
}

TEST_F(Dns, LabelAbove63BytesIsNotSent) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  dns_answer a;
  std::string name = std::string(64, 'a') + ".example.test";
  EXPECT_EQ(-1, dl_dns_resolv_timeout(name.c_str(), kTypeA, kClassIn, &a, 1, 1));
  EXPECT_TRUE(log().has(kCommon, kError, "dns create request error\n")) << log().text();
  EXPECT_EQ(0u, server.queries());
}

TEST_F(Dns, NameAbove255BytesIsNotSent) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  dns_answer a;
  std::string name;
  for (int i = 0; i < 30; ++i) name += "abcdefghi.";
  name += "test";
  EXPECT_EQ(-1, dl_dns_resolv_timeout(name.c_str(), kTypeA, kClassIn, &a, 1, 1));
  EXPECT_TRUE(log().has(kCommon, kError, "dns create request error\n")) << log().text();
  EXPECT_EQ(0u, server.queries());
}

// --- servers, passes, time-outs -----------------------------------------------------

TEST_F(Dns, NameErrorMovesToTheNextServer) {
  DnsPeer first(refused(3));
  DnsPeer second(answer_a("192.0.2.2"));
  use_servers(first.nameserver() + second.nameserver());
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(ipv4("192.0.2.2"), held(a, 4));
  EXPECT_EQ(1u, first.queries());
  EXPECT_EQ(1u, second.queries());
}

TEST_F(Dns, WrongIdentifierMovesToTheNextServerAtOnce) {
  Reply wrong = answer_a("192.0.2.1");
  wrong.id_xor = 0x5555;
  DnsPeer first(wrong);
  DnsPeer second(answer_a("192.0.2.2"));
  use_servers(first.nameserver() + second.nameserver());
  dns_answer a;
  Clock::time_point start = Clock::now();
  ASSERT_EQ(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_LT(seconds_since(start), 0.9);
  EXPECT_EQ(ipv4("192.0.2.2"), held(a, 4));
  EXPECT_EQ(1u, first.queries());
}

TEST_F(Dns, SilentServersCostTimeoutTimesServersTimesPasses) {
  DnsPeer first(silent());
  DnsPeer second(silent());
  use_servers(first.nameserver() + second.nameserver());
  dns_answer a;
  Clock::time_point start = Clock::now();
  EXPECT_EQ(-1, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 2, 1));
  double took = seconds_since(start);
  EXPECT_GT(took, 3.8);
  EXPECT_LT(took, 7.0);
  EXPECT_EQ(2u, first.queries());
  EXPECT_EQ(2u, second.queries());
}

TEST_F(Dns, SecondPassAsksTheServersAgain) {
  DnsPeer first(refused(2));
  DnsPeer second(refused(5));
  use_servers(first.nameserver() + second.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 3, 1));
  EXPECT_EQ(3u, first.queries());
  EXPECT_EQ(3u, second.queries());
}

TEST_F(Dns, NoServersFails) {
  use_servers("");
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
}

// --- reply checks -------------------------------------------------------------------

TEST_F(Dns, FortyAddressesFillTheFirst32) {
  Reply r;
  for (int i = 1; i <= 40; ++i) {
    r.answers.push_back(rr(kTypeA, ipv4(("198.51.100." + std::to_string(i)).c_str())));
  }
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("big.example.test", kTypeA, kClassIn, &a, 1, 1));
  ASSERT_EQ(32u, a.count);
  std::string want;
  for (int i = 1; i <= 32; ++i) want += ipv4(("198.51.100." + std::to_string(i)).c_str());
  EXPECT_EQ(want, held(a, 4));
}

TEST_F(Dns, ResponseBitMissingIsNoAnswer) {
  Reply r = answer_a("192.0.2.1");
  r.flags = 0x0180;
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(1u, server.queries());
}

TEST_F(Dns, TruncatedReplyIsNoAnswer) {
  Reply r = answer_a("192.0.2.1");
  r.flags = 0x8380;
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
}

TEST_F(Dns, ShortReplyIsNoAnswer) {
  DnsPeer server([](const std::string &q) { return std::vector<std::string>{q.substr(0, 11)}; });
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
}

TEST_F(Dns, ReplyWithoutQuestionDoesNotMatch) {
  Reply r = answer_a("192.0.2.1");
  r.qdcount = 0;
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_TRUE(log().has(kCommon, kError, "dns reply not match\n")) << log().text();
}

TEST_F(Dns, ReplyForAnotherNameDoesNotMatch) {
  Reply r = answer_a("192.0.2.1");
  r.question = labels("other.example.test") + u16(kTypeA) + u16(kClassIn);
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_TRUE(log().has(kCommon, kError, "dns reply not match\n")) << log().text();
}

TEST_F(Dns, QuestionNameMatchesIgnoringCase) {
  Reply r = answer_a("192.0.2.1");
  r.question = labels("WWW.Example.TEST") + u16(kTypeA) + u16(kClassIn);
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_FALSE(log().mentions("dns reply not match"));
}

TEST_F(Dns, AddressLengthNotMultipleOfFourIsRejected) {
  Reply r;
  r.answers.push_back(rr(kTypeA, ipv4("192.0.2.1") + "x"));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(-1, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_TRUE(log().has(kCommon, kError, "dns reply datalength error\n")) << log().text();
}

TEST_F(Dns, Ipv6AddressesAreTaken) {
  Reply r;
  r.answers.push_back(rr(kTypeAaaa, ipv6("2001:db8::1"), 77));
  r.answers.push_back(rr(kTypeAaaa, ipv6("2001:db8::2"), 77));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("www.example.test", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(28u, a.type);
  EXPECT_EQ(2u, a.count);
  EXPECT_EQ(77u, a.ttl);
  EXPECT_EQ(ipv6("2001:db8::1") + ipv6("2001:db8::2"), held(a, 16));
}

TEST_F(Dns, Ipv6LengthNotMultipleOf16FailsSilently) {
  Reply r;
  r.answers.push_back(rr(kTypeAaaa, ipv6("2001:db8::1").substr(0, 12)));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(-1, dl_dns_resolv_timeout("www.example.test", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_FALSE(log().mentions("dns reply datalength error"));
}

TEST_F(Dns, AddressesAfterACnameAreTaken) {
  Reply r;
  std::string target = labels("real.example.test");
  r.answers.push_back(rr(kTypeCname, target));
  // The owner points at the CNAME's data, right after the first record's
  // fixed part: 12 + question (18 + 4) + 2 + 10.
  r.answers.push_back(rr(kTypeA, ipv4("192.0.2.33"), 300, u16(0xc000 | (12 + 22 + 12))));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  ASSERT_EQ(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(1u, a.count);
  EXPECT_EQ(ipv4("192.0.2.33"), held(a, 4));
}

TEST_F(Dns, OnlyACnameForAnAddressQuestionIsNoData) {
  Reply r;
  r.answers.push_back(rr(kTypeCname, labels("real.example.test")));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(-70, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, a.count);
}

TEST_F(Dns, RecordsOfAnotherTypeAreSkipped) {
  Reply r;
  r.answers.push_back(rr(kTypeA, ipv4("192.0.2.1")));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(-70, dl_dns_resolv_timeout("www.example.test", kTypeAaaa, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, a.flags & 1u);
}

TEST_F(Dns, NoDataWithSoaIsMinus70) {
  Reply r;
  std::string soa = labels("ns.example.test") + labels("admin.example.test") + u32(1) + u32(3600) +
                    u32(600) + u32(86400) + u32(120);
  r.authority.push_back(rr(kTypeSoa, soa, 3600, labels("example.test")));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(-70, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, a.count);
}

TEST_F(Dns, PointerOutsideTheReplyIsRejected) {
  Reply r;
  r.answers.push_back(rr(kTypeA, ipv4("192.0.2.1"), 300, u16(0xc000 | 0x3ff)));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
}

TEST_F(Dns, PointerLoopEnds) {
  Reply r;
  // The owner name points at itself: offset 12 + 22 (question).
  r.answers.push_back(rr(kTypeA, ipv4("192.0.2.1"), 300, u16(0xc000 | 34)));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
}

TEST_F(Dns, RecordRunningPastTheEndIsRejected) {
  DnsPeer server([](const std::string &q) {
    std::string whole = build(q, answer_a("192.0.2.1"));
    return std::vector<std::string>{whole.substr(0, whole.size() - 2)};
  });
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
}

TEST_F(Dns, PtrAnswerWritesTheNameOverCount) {
  Reply r;
  r.answers.push_back(rr(kTypePtr, labels("prov.example.test")));
  DnsPeer server(r);
  use_servers(server.nameserver());
  dns_answer a;
  ASSERT_EQ(0,
            dl_dns_resolv_timeout("10.2.0.192.in-addr.arpa", kTypePtr, kClassIn, &a, 1, 1));
  EXPECT_EQ(1u, a.flags & 1u);
  EXPECT_STREQ("prov.example.test", reinterpret_cast<const char *>(&a.count));
  EXPECT_EQ(labels("10.2.0.192.in-addr.arpa") + u16(kTypePtr) + u16(kClassIn),
            server.query(0).substr(12));
}

TEST_F(Dns, AnswerIsClearedAtTheStart) {
  DnsPeer server(refused(3));
  use_servers(server.nameserver());
  dns_answer a;
  memset(&a, 0x5a, sizeof(a));
  EXPECT_NE(0, dl_dns_resolv_timeout("www.example.test", kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(0u, a.count);
  EXPECT_EQ(0u, a.flags);
}

TEST_F(Dns, NullNameOrAnswerFails) {
  DnsPeer server(answer_a("192.0.2.1"));
  use_servers(server.nameserver());
  dns_answer a;
  EXPECT_EQ(-1, dns_query(nullptr, kTypeA, kClassIn, &a, 1, 1));
  EXPECT_EQ(-1, dns_query("www.example.test", kTypeA, kClassIn, nullptr, 1, 1));
  EXPECT_EQ(-1, dns_query("www.example.test", kTypeA, kClassIn, &a, 0, 1));
  EXPECT_EQ(0u, server.queries());
}

}  // namespace

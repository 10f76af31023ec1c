// The own resolver against scripted UDP name servers: the query it sends
// and every check it makes of a reply.
#include <chrono>
#include <string>
#include <vector>

#include "net/dns_test_peer.h"

namespace quarry_test {
namespace {

using Clock = std::chrono::steady_clock;
const char kName[] = "www.example.test";
const char kNotMatch[] = "dns reply not match\n";
const char kDataLength[] = "dns reply datalength error\n";
const char kCreateError[] = "dns create request error\n";

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

using DnsQuery = DnsTest;

// ------------------------------------------------------------- query --

TEST_F(DnsQuery, SendsTheExactQuery) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  EXPECT_EQ(resolve(kName, kA), -1);
  ASSERT_EQ(peer.query_count(), 1u);
  const std::string q = peer.queries()[0];
  const std::string want = u16be(query_id(q))  // identifier, drawn at random
                           + u16be(0x0100)     // recursion desired
                           + u16be(1)          // QDCOUNT
                           + u16be(0) + u16be(0) + u16be(0)  // AN, NS, AR
                           + std::string("\x03www\x07" "example\x04test\x00", 18)  // QNAME
                           + u16be(1)          // QTYPE A
                           + u16be(1);         // QCLASS IN
  EXPECT_EQ(q, want);
}

TEST_F(DnsQuery, AsksForTheGivenTypeAndClass) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  dns_answer answer;
  dl_dns_resolv_timeout("4.3.2.1.in-addr.arpa", kPtr, 3, &answer, 1, 1);
  ASSERT_EQ(peer.query_count(), 1u);
  EXPECT_EQ(query_question(peer.queries()[0]), question("4.3.2.1.in-addr.arpa", kPtr, 3));
}

TEST_F(DnsQuery, NameEndingInADotEndsWithItsEmptyLabel) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  resolve("host.test.", kAAAA);
  ASSERT_EQ(peer.query_count(), 1u);
  EXPECT_EQ(query_question(peer.queries()[0]),
            std::string("\x04host\x04test\x00", 11) + u16be(kAAAA) + u16be(kIn));
}

TEST_F(DnsQuery, NameOf255BytesIsSent) {
  DnsPeer peer(name_error());
  use_servers({peer.nameserver_line()});
  std::string name = std::string(63, 'a') + "." + std::string(63, 'b') + "." +
                     std::string(63, 'c') + "." + std::string(63, 'd');
  ASSERT_EQ(name.size(), 255u);
  resolve(name.c_str(), kA);
  EXPECT_EQ(peer.query_count(), 1u);
  EXPECT_FALSE(log().mentions(kCreateError));
}

TEST_F(DnsQuery, NameLongerThan255BytesIsNotSent) {
  DnsPeer peer(silent());
  use_servers({peer.nameserver_line()});
  std::string name = std::string(63, 'a') + "." + std::string(63, 'b') + "." +
                     std::string(63, 'c') + "." + std::string(64, 'd');
  EXPECT_EQ(resolve(name.c_str(), kA), -1);
  EXPECT_EQ(peer.query_count(), 0u);
  EXPECT_EQ(log().count(kDcmn, kError, kCreateError), 1);
}

TEST_F(DnsQuery, LabelLongerThan63BytesIsNotSentToAnyServer) {
  DnsPeer first(silent());
  DnsPeer second(silent());
  use_servers({first.nameserver_line(), second.nameserver_line()});
  std::string name = std::string(64, 'x') + ".test";
  EXPECT_EQ(resolve(name.c_str(), kA, 2), -1);
  EXPECT_EQ(first.query_count() + second.query_count(), 0u);
  // Once per server and pass.
  EXPECT_EQ(log().count(kDcmn, kError, kCreateError), 4);
}

TEST_F(DnsQuery, OneSocketServesEveryServerAndPass) {
  DnsPeer first(answer_with([](const std::string &q) { return reply_to(q, {}, {}, 0x8183); }));
  DnsPeer second(answer_with([](const std::string &q) { return reply_to(q, {}, {}, 0x8183); }));
  use_servers({first.nameserver_line(), second.nameserver_line()});
  EXPECT_EQ(resolve(kName, kA, 2), -1);
  std::vector<uint16_t> ports = first.source_ports();
  for (uint16_t p : second.source_ports()) ports.push_back(p);
  ASSERT_EQ(ports.size(), 4u);
  for (uint16_t p : ports) EXPECT_EQ(p, ports[0]);
  // And the same identifier throughout the query.
  EXPECT_EQ(query_id(first.queries()[0]), query_id(second.queries()[1]));
}

TEST_F(DnsQuery, SocketsAreClosedAfterTheQuery) {
  DnsPeer v4(name_error());
  DnsPeer v6(name_error(), true);
  use_servers({v4.nameserver_line(), v6.nameserver_line()});
  int before = lowest_free_fd();
  dns_answer answer;
  EXPECT_EQ(dl_dns_resolv_timeout(kName, kA, kIn, &answer, 1, 1), -1);
  EXPECT_EQ(lowest_free_fd(), before);
  EXPECT_EQ(v4.query_count(), 1u);
  EXPECT_EQ(v6.query_count(), 1u);
}

TEST_F(DnsQuery, NoServersMeansNoAnswer) {
  EXPECT_EQ(resolve(kName, kA), -1);
}

TEST_F(DnsQuery, PassesBelowOneAskNobody) {
  DnsPeer peer(silent());
  use_servers({peer.nameserver_line()});
  dns_answer answer;
  EXPECT_EQ(dl_dns_resolv_timeout(kName, kA, kIn, &answer, 0, 1), -1);
  EXPECT_EQ(peer.query_count(), 0u);
}

// ----------------------------------------------------------- answers --

TEST_F(DnsQuery, TakesAnARecord) {
  DnsPeer peer(answer_with([](const std::string &q) { return reply_to(q, {a_record("192.0.2.7", 300)}); }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(answer_.type, 1u);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(answer_.flags, 1u);
  EXPECT_EQ(answer_.ttl, 300u);
  EXPECT_EQ(addr4(0), "192.0.2.7");
}

TEST_F(DnsQuery, TakesAaaaRecordsInOrder) {
  DnsPeer peer(answer_with([](const std::string &q) {
    return reply_to(q, {aaaa_record("2001:db8::1"), aaaa_record("2001:db8::2", 7)});
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kAAAA), 0);
  EXPECT_EQ(answer_.type, 28u);
  EXPECT_EQ(answer_.count, 2u);
  EXPECT_EQ(answer_.ttl, 7u);
  EXPECT_EQ(addr6(0), "2001:db8::1");
  EXPECT_EQ(addr6(1), "2001:db8::2");
}

TEST_F(DnsQuery, AnswersFromAnIpv6Server) {
  DnsPeer peer(answer_with([](const std::string &q) { return reply_to(q, {a_record("192.0.2.9")}); }),
               true);
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(addr4(0), "192.0.2.9");
}

TEST_F(DnsQuery, FortyARecordsFillTheRecordWithTheFirst32) {
  DnsPeer peer(answer_with([](const std::string &q) {
    std::vector<std::string> records;
    for (int i = 1; i <= 40; ++i) records.push_back(a_record(("198.51.100." + std::to_string(i)).c_str()));
    return reply_to(q, records);
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  ASSERT_EQ(answer_.count, 32u);
  EXPECT_EQ(addr4(0), "198.51.100.1");
  EXPECT_EQ(addr4(31), "198.51.100.32");
}

TEST_F(DnsQuery, OneRecordWithFortyAddressesIsCappedAt32) {
  DnsPeer peer(answer_with([](const std::string &q) {
    std::string data;
    for (int i = 1; i <= 40; ++i) data += ipv4(("203.0.113." + std::to_string(i)).c_str());
    return reply_to(q, {record(pointer(kQuestionOffset), kA, kIn, 60, data)});
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  ASSERT_EQ(answer_.count, 32u);
  EXPECT_EQ(addr4(31), "203.0.113.32");
}

TEST_F(DnsQuery, TakesAPtrName) {
  DnsPeer peer(answer_with([](const std::string &q) {
    return reply_to(q, {record(pointer(kQuestionOffset), kPtr, kIn, 60, wire_name("prov.phone.test"))});
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve("10.2.0.192.in-addr.arpa", kPtr), 0);
  EXPECT_EQ(answer_.type, 12u);
  EXPECT_EQ(answer_.flags, 1u);
  EXPECT_EQ(ptr_name(), "prov.phone.test");
}

TEST_F(DnsQuery, PtrNameThroughAPointer) {
  DnsPeer peer(answer_with([](const std::string &q) {
    // "host." followed by a pointer to the question's second label.
    std::string data = std::string("\x04host", 5) + pointer(kQuestionOffset + 3);
    return reply_to(q, {record(pointer(kQuestionOffset), kPtr, kIn, 60, data)});
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve("10.in-addr.arpa", kPtr), 0);
  EXPECT_EQ(ptr_name(), "host.in-addr.arpa");
}

TEST_F(DnsQuery, AddressAfterACnameIsTaken) {
  DnsPeer peer(answer_with([](const std::string &q) {
    std::string cname = record(pointer(kQuestionOffset), kCname, kIn, 60, wire_name("real.example.test"));
    // The A record is owned by the alias target, not the asked name.
    std::string a = record(wire_name("real.example.test"), kA, kIn, 30, ipv4("192.0.2.44"));
    return reply_to(q, {cname, a});
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(addr4(0), "192.0.2.44");
  EXPECT_EQ(answer_.ttl, 30u);
}

TEST_F(DnsQuery, CnameAloneIsNoData) {
  DnsPeer peer(answer_with([](const std::string &q) {
    return reply_to(q, {record(pointer(kQuestionOffset), kCname, kIn, 60, wire_name("x.test"))});
  }));
  use_servers({peer.nameserver_line()});
  EXPECT_EQ(resolve(kName, kA), -70);
  EXPECT_EQ(answer_.count, 0u);
}

TEST_F(DnsQuery, RecordsOfAnotherTypeOrClassAreSkipped) {
  DnsPeer peer(answer_with([](const std::string &q) {
    return reply_to(q, {record(pointer(kQuestionOffset), kA, 3, 60, ipv4("192.0.2.1")),
                        record(pointer(kQuestionOffset), kAAAA, kIn, 60, ipv6("::1")),
                        a_record("192.0.2.2")});
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(answer_.count, 1u);
  EXPECT_EQ(addr4(0), "192.0.2.2");
}

std::string soa_reply(const std::string &q) {
  std::string soa = wire_name("ns.example.test") + wire_name("admin.example.test") +
                    u32be(2024010101)  // serial
                    + u32be(3600)      // refresh
                    + u32be(600)       // retry
                    + u32be(86400)     // expire
                    + u32be(120);      // minimum
  return reply_to(q, {}, {record(wire_name("example.test"), kSoa, kIn, 900, soa)});
}

TEST_F(DnsQuery, SoaNegativeAnswerIsNoDataAndTheNextServerIsAsked) {
  DnsPeer first(answer_with(soa_reply));
  DnsPeer second(answer_with(soa_reply));
  use_servers({first.nameserver_line(), second.nameserver_line()});
  auto start = Clock::now();
  EXPECT_EQ(resolve(kName, kA), -70);
  EXPECT_LT(seconds_since(start), 0.9);
  EXPECT_EQ(first.query_count(), 1u);
  EXPECT_EQ(second.query_count(), 1u);
  // The SOA's last number read, its minimum.
  EXPECT_EQ(answer_.ttl, 120u);
  EXPECT_EQ(answer_.count, 0u);
}

TEST_F(DnsQuery, LaterServerAnswersAfterNoData) {
  DnsPeer first(answer_with(soa_reply));
  DnsPeer second(answer_with([](const std::string &q) { return reply_to(q, {a_record("192.0.2.5")}); }));
  use_servers({first.nameserver_line(), second.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(addr4(0), "192.0.2.5");
}

// ------------------------------------------------------ reply checks --

// A server answering |bad|, then one answering the A record 192.0.2.99:
// a rejected reply moves the query on to the next server at once.
class RejectedReply : public DnsTest {
 protected:
  void expect_next_server(std::function<std::string(const std::string &)> bad) {
    DnsPeer first(answer_with(bad));
    DnsPeer second(answer_with([](const std::string &q) { return reply_to(q, {a_record("192.0.2.99")}); }));
    use_servers({first.nameserver_line(), second.nameserver_line()});
    auto start = Clock::now();
    ASSERT_EQ(resolve(kName, kA), 0);
    EXPECT_LT(seconds_since(start), 0.9);
    EXPECT_EQ(answer_.count, 1u);
    EXPECT_EQ(addr4(0), "192.0.2.99");
    EXPECT_EQ(first.query_count(), 1u);
    EXPECT_EQ(second.query_count(), 1u);
  }
  // |bad| as the only server: the query fails with -1.
  void expect_failure(std::function<std::string(const std::string &)> bad) {
    DnsPeer only(answer_with(bad));
    use_servers({only.nameserver_line()});
    EXPECT_EQ(resolve(kName, kA), -1);
    EXPECT_EQ(only.query_count(), 1u);
  }
};

TEST_F(RejectedReply, WrongIdentifier) {
  expect_next_server([](const std::string &q) {
    std::string r = reply_to(q, {a_record("192.0.2.1")});
    r[1] = static_cast<char>(r[1] ^ 0x5a);
    return r;
  });
  EXPECT_EQ(log().text(), "");
}

TEST_F(RejectedReply, ResponseBitClear) {
  expect_next_server([](const std::string &q) { return reply_to(q, {a_record("192.0.2.1")}, {}, 0x0180); });
}

TEST_F(RejectedReply, NameError) {
  expect_next_server([](const std::string &q) { return reply_to(q, {}, {}, 0x8183); });
}

TEST_F(RejectedReply, ServerFailureAndRefusal) {
  expect_next_server([](const std::string &q) { return reply_to(q, {a_record("192.0.2.1")}, {}, 0x8182); });
  expect_next_server([](const std::string &q) { return reply_to(q, {a_record("192.0.2.1")}, {}, 0x8185); });
}

TEST_F(RejectedReply, Truncated) {
  expect_next_server([](const std::string &q) { return reply_to(q, {a_record("192.0.2.1")}, {}, 0x8380); });
}

TEST_F(RejectedReply, OneByte) {
  expect_next_server([](const std::string &) { return std::string(1, '\x42'); });
}

TEST_F(RejectedReply, ElevenBytes) {
  expect_next_server([](const std::string &q) { return reply_to(q, {}).substr(0, 11); });
}

TEST_F(RejectedReply, NoQuestion) {
  expect_next_server([](const std::string &q) { return header(query_id(q), kReplyFlags, 0, 0); });
  EXPECT_EQ(log().count(kDcmn, kError, kNotMatch), 1);
}

TEST_F(RejectedReply, OtherQuestion) {
  expect_next_server([](const std::string &q) {
    return header(query_id(q), kReplyFlags, 1, 1) + question("www.example.tesT.x", kA) +
           record(pointer(kQuestionOffset), kA, kIn, 60, ipv4("192.0.2.1"));
  });
  EXPECT_EQ(log().count(kDcmn, kError, kNotMatch), 1);
}

TEST_F(DnsQuery, QuestionIsComparedWithoutRegardToCase) {
  DnsPeer peer(answer_with([](const std::string &q) {
    return header(query_id(q), kReplyFlags, 2, 1) + question("other.test", kA) +
           question("WWW.Example.TEST", kA) +
           record(wire_name("www.example.test"), kA, kIn, 60, ipv4("192.0.2.3"));
  }));
  use_servers({peer.nameserver_line()});
  ASSERT_EQ(resolve(kName, kA), 0);
  EXPECT_EQ(addr4(0), "192.0.2.3");
  EXPECT_FALSE(log().mentions(kNotMatch));
}

TEST_F(RejectedReply, ARecordLengthNotAMultipleOfFour) {
  expect_next_server([](const std::string &q) {
    return reply_to(q, {record(pointer(kQuestionOffset), kA, kIn, 60, ipv4("192.0.2.1") + "x")});
  });
  EXPECT_EQ(log().count(kDcmn, kError, kDataLength), 1);
}

TEST_F(RejectedReply, AaaaRecordLengthNotAMultipleOfSixteenWithoutALogLine) {
  DnsPeer first(answer_with([](const std::string &q) {
    return reply_to(q, {record(pointer(kQuestionOffset), kAAAA, kIn, 60, ipv4("192.0.2.1"))});
  }));
  use_servers({first.nameserver_line()});
  EXPECT_EQ(resolve(kName, kAAAA), -1);
  EXPECT_EQ(log().text(), "");
}

TEST_F(RejectedReply, DataLengthPastTheEnd) {
  expect_next_server([](const std::string &q) {
    std::string r = reply_to(q, {a_record("192.0.2.1")});
    return r.substr(0, r.size() - 1);
  });
}

TEST_F(RejectedReply, RecordCutShort) {
  expect_next_server([](const std::string &q) {
    std::string r = reply_to(q, {a_record("192.0.2.1")});
    return r.substr(0, r.size() - 7);
  });
}

TEST_F(RejectedReply, PointerOutOfRange) {
  expect_next_server([](const std::string &q) {
    return reply_to(q, {record(pointer(0x3000), kA, kIn, 60, ipv4("192.0.2.1"))});
  });
}

TEST_F(RejectedReply, PointerLoop) {
  expect_next_server([](const std::string &q) {
    // The owner name points at itself.
    std::string r = header(query_id(q), kReplyFlags, 1, 1) + query_question(q);
    return r + pointer(static_cast<unsigned>(r.size())) + u16be(kA) + u16be(kIn) + u32be(60) +
           u16be(4) + ipv4("192.0.2.1");
  });
}

TEST_F(RejectedReply, PointersChasingEachOther) {
  expect_next_server([](const std::string &q) {
    std::string r = header(query_id(q), kReplyFlags, 1, 1) + query_question(q);
    unsigned at = static_cast<unsigned>(r.size());
    // A label, then a pointer back to that label: a name without end.
    return r + std::string("\x01z", 2) + pointer(at) + u16be(kA) + u16be(kIn) + u32be(60) +
           u16be(4) + ipv4("192.0.2.1");
  });
}

TEST_F(RejectedReply, LabelPastTheEnd) {
  expect_next_server([](const std::string &q) {
    return header(query_id(q), kReplyFlags, 1, 0) + std::string("\x3fwww", 4);
  });
}

TEST_F(RejectedReply, PtrNameThatCannotBeRead) {
  DnsPeer only(answer_with([](const std::string &q) {
    return reply_to(q, {record(pointer(kQuestionOffset), kPtr, kIn, 60, pointer(0x3fff))});
  }));
  use_servers({only.nameserver_line()});
  EXPECT_EQ(resolve("1.in-addr.arpa", kPtr), -1);
  EXPECT_EQ(log().count(kDcmn, kError, kDataLength), 1);
}

TEST_F(RejectedReply, SoaCutShort) {
  DnsPeer only(answer_with([](const std::string &q) {
    std::string r = soa_reply(q);
    // The record's length still covers the data; the message ends early.
    return r.substr(0, r.size() - 2);
  }));
  use_servers({only.nameserver_line()});
  EXPECT_EQ(resolve(kName, kA), -1);
}

TEST_F(RejectedReply, RejectedReplyLeavesNothingForTheNextServer) {
  // Two addresses taken, then a broken third record: nothing of it may
  // show in the next server's answer.
  expect_next_server([](const std::string &q) {
    return reply_to(q, {a_record("192.0.2.1"), a_record("192.0.2.2"),
                        record(pointer(kQuestionOffset), kA, kIn, 60, "xyz")});
  });
}

TEST_F(RejectedReply, OnlyServerRejectedFailsTheQuery) {
  expect_failure([](const std::string &q) { return reply_to(q, {}, {}, 0x8183); });
}

}  // namespace
}  // namespace quarry_test

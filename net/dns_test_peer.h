// What the own resolver's tests share: DNS message builders with one
// comment per field, a scripted UDP name server on loopback, and a fixture
// that points the resolver at scripted servers and a private hosts file.
#ifndef QUARRY_NET_DNS_TEST_PEER_H
#define QUARRY_NET_DNS_TEST_PEER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "net/net_test_support.h"
#include "tests/peer/scripted_peer.h"

namespace quarry_test {

constexpr int kA = 1;
constexpr int kAAAA = 28;
constexpr int kPtr = 12;
constexpr int kCname = 5;
constexpr int kSoa = 6;
constexpr int kIn = 1;
// Flags of a usual reply: response, recursion desired and available.
constexpr uint16_t kReplyFlags = 0x8180;

// ------------------------------------------------------------ builders --

inline std::string u16be(unsigned v) {
  return std::string{static_cast<char>((v >> 8) & 0xff), static_cast<char>(v & 0xff)};
}

inline std::string u32be(uint32_t v) { return u16be(v >> 16) + u16be(v & 0xffff); }

// A name as length-prefixed labels closed by a zero byte.
inline std::string wire_name(const std::string &dotted) {
  std::string out;
  size_t start = 0;
  while (start < dotted.size()) {
    size_t dot = dotted.find('.', start);
    if (dot == std::string::npos) dot = dotted.size();
    out += static_cast<char>(dot - start);
    out += dotted.substr(start, dot - start);
    start = dot + 1;
  }
  return out + std::string(1, '\0');
}

// A compression pointer to |offset|.
inline std::string pointer(unsigned offset) { return u16be(0xC000 | offset); }

inline std::string header(unsigned id, unsigned flags, unsigned qd, unsigned an, unsigned ns = 0,
                          unsigned ar = 0) {
  return u16be(id)        // identifier
         + u16be(flags)   // QR, opcode, AA, TC, RD, RA, Z, RCODE
         + u16be(qd)      // QDCOUNT
         + u16be(an)      // ANCOUNT
         + u16be(ns)      // NSCOUNT
         + u16be(ar);     // ARCOUNT
}

inline std::string question(const std::string &name, unsigned type, unsigned qclass = kIn) {
  return wire_name(name) + u16be(type) + u16be(qclass);
}

// A resource record with |owner| already in wire form.
inline std::string record(const std::string &owner, unsigned type, unsigned rclass, uint32_t ttl,
                          const std::string &rdata) {
  return owner + u16be(type) + u16be(rclass) + u32be(ttl) + u16be(rdata.size()) + rdata;
}

inline std::string ipv4(const char *text) {
  in_addr a;
  inet_pton(AF_INET, text, &a);
  return std::string(reinterpret_cast<const char *>(&a), sizeof(a));
}

inline std::string ipv6(const char *text) {
  in6_addr a;
  inet_pton(AF_INET6, text, &a);
  return std::string(reinterpret_cast<const char *>(&a), sizeof(a));
}

// The identifier of a received query.
inline unsigned query_id(const std::string &query) {
  return query.size() < 2 ? 0
                          : (static_cast<uint8_t>(query[0]) << 8) | static_cast<uint8_t>(query[1]);
}

// The question section of a received query (name, type, class).
inline std::string query_question(const std::string &query) {
  return query.size() > 12 ? query.substr(12) : std::string();
}

// Offset of the question name in a reply: for pointers to it.
constexpr unsigned kQuestionOffset = 12;

// A reply to |query| that repeats its question and carries |answers|
// (records, already built) and |authority|.
inline std::string reply_to(const std::string &query, const std::vector<std::string> &answers,
                            const std::vector<std::string> &authority = {},
                            unsigned flags = kReplyFlags) {
  std::string out = header(query_id(query), flags, 1, answers.size(), authority.size()) +
                    query_question(query);
  for (const auto &a : answers) out += a;
  for (const auto &a : authority) out += a;
  return out;
}

// An A record owned by the question's name (through a pointer).
inline std::string a_record(const char *addr, uint32_t ttl = 60) {
  return record(pointer(kQuestionOffset), kA, kIn, ttl, ipv4(addr));
}

inline std::string aaaa_record(const char *addr, uint32_t ttl = 60) {
  return record(pointer(kQuestionOffset), kAAAA, kIn, ttl, ipv6(addr));
}

// ---------------------------------------------------------------- peer --

// A name server on 127.0.0.1 (or ::1) and a free port, answering each
// query with whatever datagrams its script returns for it (none: silence).
class DnsPeer {
 public:
  using Script = std::function<std::vector<std::string>(const std::string &query)>;

  explicit DnsPeer(Script script, bool v6 = false)
      : script_(std::move(script)), v6_(v6), udp_(v6) {
    if (udp_.port() == 0) return;
    udp_.run([this](UdpPeer &udp) {
      std::string query;
      while (!udp.stopping()) {
        if (!udp.recv(&query)) continue;
        for (const auto &datagram : script_(query)) udp.send(datagram);
      }
    });
  }
  DnsPeer(const DnsPeer &) = delete;
  DnsPeer &operator=(const DnsPeer &) = delete;

  uint16_t port() const { return udp_.port(); }
  // The resolver file's line for this server.
  std::string nameserver_line() const {
    return std::string("nameserver ") + (v6_ ? "[::1]:" : "127.0.0.1:") + std::to_string(port()) +
           "\n";
  }
  std::vector<std::string> queries() const { return udp_.received(); }
  size_t query_count() const { return queries().size(); }
  // Waits up to a second for |n| queries to have arrived; the count then.
  size_t wait_for_queries(size_t n) const {
    for (int i = 0; i < 100 && query_count() < n; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return query_count();
  }
  // The source port of each query, in arrival order.
  std::vector<uint16_t> source_ports() const { return udp_.sender_ports(); }

 private:
  Script script_;
  bool v6_;
  // Last, so that its thread ends before the script goes.
  UdpPeer udp_;
};

// A script that answers every query with the one reply |make| builds.
inline DnsPeer::Script answer_with(std::function<std::string(const std::string &)> make) {
  return [make](const std::string &q) { return std::vector<std::string>{make(q)}; };
}

// Answers every query at once with "no such name".
inline DnsPeer::Script name_error() {
  return answer_with([](const std::string &q) { return reply_to(q, {}, {}, kReplyFlags | 3); });
}

inline DnsPeer::Script silent() {
  return [](const std::string &) { return std::vector<std::string>{}; };
}

// ------------------------------------------------------------- fixture --

// A fresh library whose own resolver asks only the servers given to
// use_servers and reads a private, empty hosts file.
class DnsTest : public NetTest {
 protected:
  void SetUp() override {
    NetTest::SetUp();
    set_hosts("");
    use_servers({});
    log().clear();
  }

  // Writes a resolver file naming |lines| and loads it as a change would.
  void use_servers(const std::vector<std::string> &lines) {
    std::string text;
    for (const auto &l : lines) text += l;
    resolv_ = dir_.write("resolv.conf", text);
    ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv_.c_str()), 0);
    dns_reload_resolv_conf(resolv_.c_str());
  }
  void set_hosts(const std::string &text) {
    hosts_ = dir_.write("hosts", text);
    ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts_.c_str()), 0);
    dns_reload_hosts_conf(hosts_.c_str());
  }

  // dl_dns_resolv_timeout with |passes| and a time-out of 1 s.
  int resolve(const char *name, int type, int passes = 1) {
    memset(&answer_, 0, sizeof(answer_));
    return dl_dns_resolv_timeout(name, type, kIn, &answer_, passes, 1);
  }

  // The |i|th IPv4 or IPv6 address of the answer as text.
  std::string addr4(unsigned i) const {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, answer_.addr + 4 * i, text, sizeof(text));
    return text;
  }
  std::string addr6(unsigned i) const {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, answer_.addr + 16 * i, text, sizeof(text));
    return text;
  }
  // The PTR answer's name text.
  std::string ptr_name() const { return reinterpret_cast<const char *>(&answer_.count); }

  TempDir dir_;
  std::string resolv_;
  std::string hosts_;
  dns_answer answer_ = {};
};

}  // namespace quarry_test

#endif  // QUARRY_NET_DNS_TEST_PEER_H

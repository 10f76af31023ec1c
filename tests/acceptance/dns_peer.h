// A scripted UDP name server on loopback for the resolver suites: it keeps
// every query it receives and answers each with the datagrams its script
// returns (none: a silent server). Plus helpers that build DNS messages.
#ifndef QUARRY_TESTS_ACCEPTANCE_DNS_PEER_H
#define QUARRY_TESTS_ACCEPTANCE_DNS_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace dns_acceptance {

constexpr unsigned kCommon = 2;
constexpr int kError = 3;
constexpr int kNotice = 5;
constexpr int kTypeA = 1;
constexpr int kTypeAaaa = 28;
constexpr int kTypePtr = 12;
constexpr int kTypeCname = 5;
constexpr int kTypeSoa = 6;
constexpr int kClassIn = 1;
constexpr int kPollMs = 20;

inline std::string u16(unsigned v) {
  return std::string{static_cast<char>((v >> 8) & 0xff), static_cast<char>(v & 0xff)};
}
inline std::string u32(uint32_t v) { return u16(v >> 16) + u16(v & 0xffff); }
inline unsigned get16(const std::string &m, size_t at) {
  return (static_cast<unsigned char>(m[at]) << 8) | static_cast<unsigned char>(m[at + 1]);
}

// "www.example.test" as length-prefixed labels ending in a zero byte.
inline std::string labels(const std::string &name) {
  std::string out;
  size_t start = 0;
  while (start < name.size()) {
    size_t dot = name.find('.', start);
    if (dot == std::string::npos) dot = name.size();
    out += static_cast<char>(dot - start);
    out += name.substr(start, dot - start);
    start = dot + 1;
  }
  return out + std::string(1, '\0');
}

// The question section of a query (name, type, class), as sent.
inline std::string question_of(const std::string &query) {
  size_t at = 12;
  while (at < query.size() && query[at] != 0) at += 1 + static_cast<unsigned char>(query[at]);
  return query.substr(12, at + 1 + 4 - 12);
}

inline std::string ipv4(const char *text) {
  in_addr a{};
  inet_pton(AF_INET, text, &a);
  return std::string(reinterpret_cast<const char *>(&a), 4);
}
inline std::string ipv6(const char *text) {
  in6_addr a{};
  inet_pton(AF_INET6, text, &a);
  return std::string(reinterpret_cast<const char *>(&a), 16);
}

// A resource record; the owner defaults to a pointer to the question name.
inline std::string rr(unsigned type, const std::string &data, uint32_t ttl = 300,
                      const std::string &owner = std::string("\xc0\x0c", 2)) {
  return owner + u16(type) + u16(kClassIn) + u32(ttl) + u16(data.size()) + data;
}

struct Reply {
  unsigned id_xor = 0;     // changes the identifier
  unsigned flags = 0x8180;  // response, RD, RA
  unsigned rcode = 0;
  int qdcount = 1;
  std::string question;  // empty: echo the query's
  std::vector<std::string> answers;
  std::vector<std::string> authority;
};

inline std::string build(const std::string &query, const Reply &r) {
  std::string q = r.question.empty() ? question_of(query) : r.question;
  std::string out = u16(get16(query, 0) ^ r.id_xor) + u16(r.flags | r.rcode) + u16(r.qdcount) +
                    u16(r.answers.size()) + u16(r.authority.size()) + u16(0);
  if (r.qdcount > 0) out += q;
  for (const std::string &a : r.answers) out += a;
  for (const std::string &a : r.authority) out += a;
  return out;
}

// The address fields of an answer as bytes.
inline std::string held(const dns_answer &a, size_t size) {
  return std::string(reinterpret_cast<const char *>(a.addr), a.count * size);
}

class DnsPeer {
 public:
  using Script = std::function<std::vector<std::string>(const std::string &query)>;

  explicit DnsPeer(Script script, bool v6 = false) : script_(std::move(script)), v6_(v6) {
    fd_ = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0);
    sockaddr_storage ss{};
    socklen_t len;
    if (v6) {
      sockaddr_in6 *s6 = reinterpret_cast<sockaddr_in6 *>(&ss);
      s6->sin6_family = AF_INET6;
      s6->sin6_addr = in6addr_loopback;
      len = sizeof(*s6);
    } else {
      sockaddr_in *s4 = reinterpret_cast<sockaddr_in *>(&ss);
      s4->sin_family = AF_INET;
      s4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      len = sizeof(*s4);
    }
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&ss), len) != 0) return;
    getsockname(fd_, reinterpret_cast<sockaddr *>(&ss), &len);
    port_ = ntohs(v6 ? reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port
                     : reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
    thread_ = std::thread([this] { run(); });
  }
  // A server that answers every query with |reply|.
  explicit DnsPeer(const Reply &reply)
      : DnsPeer([reply](const std::string &q) { return std::vector<std::string>{build(q, reply)}; }) {}
  ~DnsPeer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
  }
  DnsPeer(const DnsPeer &) = delete;
  DnsPeer &operator=(const DnsPeer &) = delete;

  bool ok() const { return port_ != 0; }
  uint16_t port() const { return port_; }
  std::string nameserver() const {
    return "nameserver " + std::string(v6_ ? "[::1]:" : "127.0.0.1:") + std::to_string(port_) +
           "\n";
  }
  size_t queries() const {
    std::lock_guard<std::mutex> hold(lock_);
    return queries_.size();
  }
  std::string query(size_t i) const {
    std::lock_guard<std::mutex> hold(lock_);
    return i < queries_.size() ? queries_[i] : std::string();
  }

 private:
  void run() {
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, kPollMs) <= 0) continue;
      char buf[2048];
      sockaddr_storage from{};
      socklen_t flen = sizeof(from);
      ssize_t n = recvfrom(fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &flen);
      if (n <= 0) continue;
      std::string q(buf, static_cast<size_t>(n));
      {
        std::lock_guard<std::mutex> hold(lock_);
        queries_.push_back(q);
      }
      if (n < 12) continue;
      for (const std::string &d : script_(q)) {
        sendto(fd_, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&from), flen);
      }
    }
  }

  Script script_;
  bool v6_;
  int fd_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  mutable std::mutex lock_;
  std::vector<std::string> queries_;
};

inline DnsPeer::Script silent() {
  return [](const std::string &) { return std::vector<std::string>{}; };
}

inline bool ipv6_loopback_works() {
  int fd = socket(AF_INET6, SOCK_DGRAM, 0);
  if (fd < 0) return false;
  sockaddr_in6 s6{};
  s6.sin6_family = AF_INET6;
  s6.sin6_addr = in6addr_loopback;
  bool ok = bind(fd, reinterpret_cast<sockaddr *>(&s6), sizeof(s6)) == 0;
  close(fd);
  return ok;
}

inline double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The library initialised, every log line captured, and the process-wide
// resolver pointed at files written by the test.
class ResolverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    log_.reset(new quarry_test::LogCapture(9));
    use_hosts("");
  }
  void TearDown() override {
    log_.reset();
    dl_exit();
  }
  // Replaces the server list with the lines of |text|.
  void use_servers(const std::string &text) {
    dns_reload_resolv_conf(dir_.write("resolv.conf", text).c_str());
  }
  void use_hosts(const std::string &text) {
    dns_reload_hosts_conf(dir_.write("hosts", text).c_str());
  }
  void use_seq(int first, int second) {
    int seq[2] = {first, second};
    ASSERT_EQ(0, dl_dns_set_resolv_seq(seq, 2));
  }
  quarry_test::LogCapture &log() { return *log_; }

  quarry_test::TempDir dir_;
  std::unique_ptr<quarry_test::LogCapture> log_;
};

}  // namespace dns_acceptance

#endif  // QUARRY_TESTS_ACCEPTANCE_DNS_PEER_H

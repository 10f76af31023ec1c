// Eight threads resolving while another rewrites the resolver and hosts
// files and changes the resolver settings. Meant to run under
// ThreadSanitizer as well (QUARRY_TSAN).
#include <stdio.h>
#include <utime.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "net/dns_test_peer.h"

namespace quarry_test {
namespace {

const char kDnsName[] = "dns.test";
const char kHostsName[] = "hosts.test";
constexpr int kReaders = 8;
constexpr auto kRunTime = std::chrono::milliseconds(1500);

// Answers kDnsName with |addr|; every other name does not exist.
DnsPeer::Script server_answering(const char *addr) {
  return answer_with([addr](const std::string &q) {
    if (query_question(q) == question(kDnsName, kA)) return reply_to(q, {a_record(addr)});
    return reply_to(q, {}, {}, kReplyFlags | 3);
  });
}

class DnsConcurrency : public DnsTest {
 protected:
  // Replaces |name| in one step, with a modification time of its own.
  void replace(const std::string &name, const std::string &text, time_t when) {
    std::string tmp = dir_.write(name + ".new", text);
    utimbuf times = {when, when};
    ASSERT_EQ(utime(tmp.c_str(), &times), 0);
    ASSERT_EQ(rename(tmp.c_str(), dir_.file(name).c_str()), 0);
  }
};

TEST_F(DnsConcurrency, ResolvingWhileFilesAndSettingsChange) {
  DnsPeer first(server_answering("192.0.2.1"));
  DnsPeer second(server_answering("192.0.2.2"));
  replace("resolv.conf", first.nameserver_line(), 1000);
  replace("hosts", std::string("10.0.0.1 ") + kHostsName + "\n", 1000);
  ASSERT_EQ(dl_dns_reload_resolv_conf(), -1);
  ASSERT_EQ(dl_dns_reload_hosts_conf(), 0);

  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::atomic<int> answers{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < kReaders; ++t) {
    readers.emplace_back([&, t] {
      while (!stop) {
        // Half the readers also run the checks every connect makes.
        if (t % 2 == 0) {
          dl_dns_reload_resolv_conf();
          dl_dns_reload_hosts_conf();
        }
        dns_answer answer;
        const char *name = (answers.load() + t) % 2 == 0 ? kDnsName : kHostsName;
        if (dl_dns_resolv(name, kA, kIn, &answer) != 0 || answer.count != 1) {
          ++failures;
          continue;
        }
        const uint8_t last = answer.addr[3];
        const uint8_t first_byte = answer.addr[0];
        bool good = name == kDnsName ? first_byte == 192 && (last == 1 || last == 2)
                                     : first_byte == 10 && (last == 1 || last == 2);
        if (!good) ++failures;
        ++answers;
      }
    });
  }

  std::thread writer([&] {
    const int hosts_first[] = {1, 2};
    const int servers_first[] = {2, 1};
    time_t when = 2000;
    for (int i = 0; !stop; ++i, ++when) {
      const bool odd = i % 2 != 0;
      replace("resolv.conf", (odd ? second : first).nameserver_line(), when);
      replace("hosts", std::string(odd ? "10.0.0.2 " : "10.0.0.1 ") + kHostsName + "\n", when);
      dl_dns_reload_resolv_conf();
      dl_dns_reload_hosts_conf();
      dl_dns_set_timeout(odd ? 2 : 1);
      dl_dns_set_nretry(odd ? 3 : 2);
      dl_dns_set_resolv_seq(odd ? servers_first : hosts_first, 2);
      dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv_.c_str());
      dl_set_option(DL_OPT_HOSTS_PATH, hosts_.c_str());
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });

  std::this_thread::sleep_for(kRunTime);
  stop = true;
  for (auto &r : readers) r.join();
  writer.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(answers.load(), kReaders * 10);
  EXPECT_GT(first.query_count(), 0u);
  EXPECT_GT(second.query_count(), 0u);
}

}  // namespace
}  // namespace quarry_test

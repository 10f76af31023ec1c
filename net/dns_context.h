// The own resolver's process-wide state: the context with the name server
// and hosts lists, each behind a read-write lock, and the resolver settings
// (time-out, passes, order of sources) behind their mutex. Shared by the
// file parsers, the queries and the reload-on-change code of net/.
#ifndef QUARRY_NET_DNS_CONTEXT_H
#define QUARRY_NET_DNS_CONTEXT_H

#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/socket.h>

#include "net/net.h"

// One name server, in file order.
struct dns_server_entry {
  dns_server_entry *prev;
  dns_server_entry *next;
  sockaddr_storage addr;  // sockaddr_in or sockaddr_in6, port in network order
  socklen_t addr_len;
};

// One (address, name) pair of the hosts file; the name is allocated with
// the entry.
struct dns_hosts_entry {
  dns_hosts_entry *prev;
  dns_hosts_entry *next;
  sockaddr_in6 addr;  // room for either family, port 0
  socklen_t addr_len;
  char *name;
};

struct dns_conf_base_st {
  pthread_rwlock_t server_lock;
  int server_count;
  dns_server_entry *server_head;  // file order: new entries at the tail
  dns_server_entry *server_tail;

  pthread_rwlock_t hosts_lock;
  int hosts_count;
  dns_hosts_entry *hosts_head;  // new entries at the head: reverse file order
  dns_hosts_entry *hosts_tail;
};

namespace quarry {

// Most name servers held; further "nameserver" lines are ignored.
constexpr int kDnsMaxServers = 6;
// Entries of the order of sources.
constexpr int kDnsSeqEntries = 2;
constexpr int kDnsSeqNone = 0;
constexpr int kDnsSeqHosts = 1;
constexpr int kDnsSeqServers = 2;
// Most addresses one answer holds.
constexpr uint32_t kDnsMaxAddrs = 32;
constexpr size_t kDnsIpv4Len = 4;
constexpr size_t kDnsIpv6Len = 16;
constexpr int kDnsTypePtr = 12;
constexpr int kDnsTypeCname = 5;
constexpr int kDnsTypeSoa = 6;
// Result of a query whose servers answered without data.
constexpr int kDnsNoData = -70;

// The one context of the process.
dns_conf_base_st *dns_context();

// A copy of the resolver settings, taken under their mutex.
struct DnsSettings {
  int timeout_s;
  int passes;
  int seq[kDnsSeqEntries];
};
DnsSettings dns_settings();

// Holds a read-write lock for one scope, shared or exclusive.
class RwGuard {
 public:
  RwGuard(pthread_rwlock_t *lock, bool write) : lock_(lock) {
    if (write) {
      pthread_rwlock_wrlock(lock_);
    } else {
      pthread_rwlock_rdlock(lock_);
    }
  }
  ~RwGuard() { pthread_rwlock_unlock(lock_); }
  RwGuard(const RwGuard &) = delete;
  RwGuard &operator=(const RwGuard &) = delete;

 private:
  pthread_rwlock_t *lock_;
};

// Reads the next line of a resolver or hosts file into |buf| (kConfLineRoom
// bytes) and drops its last character, which is the newline when there is
// one (a last line without one loses its final character). False at the
// end of the file.
constexpr size_t kConfLineRoom = 1024;
bool conf_next_line(FILE *file, char *buf);
// Blank and tab: what separates tokens on both files' lines.
constexpr char kConfSeparators[] = " \t";

// Parse |file| into |ctx|'s lists; the caller holds the list's write lock.
void resolv_conf_parse(dns_conf_base_st *ctx, FILE *file);
void hosts_parse(dns_conf_base_st *ctx, FILE *file);

// Frees every entry of one list; the caller holds its write lock.
void free_servers(dns_conf_base_st *ctx);
void free_hosts(dns_conf_base_st *ctx);

// Fills |answer| with the addresses the hosts list holds for |name|
// (family per |type|), under the hosts read lock. Returns true when at
// least one was taken.
bool hosts_lookup(dns_conf_base_st *ctx, const char *name, int type, dns_answer *answer);

// Copies at most kDnsMaxServers server addresses under the server read
// lock. Returns how many.
int copy_servers(dns_conf_base_st *ctx, sockaddr_storage *out);

}  // namespace quarry

#endif  // QUARRY_NET_DNS_CONTEXT_H

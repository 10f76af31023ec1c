// The own resolver's entry: numeric addresses at once, then the hosts file
// and the name servers in the configured order of sources.
#include <arpa/inet.h>
#include <string.h>
#include <sys/socket.h>

#include "net/dns_context.h"

namespace {

// Numeric addresses need no look-up. Returns 0 when |name| is a literal
// of |type|'s family (and fills |answer|), -1 when it is one of the other
// family, 1 when it is no literal at all.
int answer_literal(const char *name, int type, dns_answer *answer) {
  int family;
  int other;
  if (type == quarry::kDnsTypeA) {
    family = AF_INET;
    other = AF_INET6;
  } else if (type == quarry::kDnsTypeAAAA) {
    family = AF_INET6;
    other = AF_INET;
  } else {
    return 1;
  }
  uint8_t scratch[quarry::kDnsIpv6Len];
  if (inet_pton(family, name, answer->addr) == 1) {
    answer->type = static_cast<uint32_t>(type);
    answer->count = 1;
    return 0;
  }
  if (inet_pton(other, name, scratch) == 1) return -1;
  return 1;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_dns_resolv_timeout(const char *name, int type, int qclass, dns_answer *answer,
                                    int passes, int timeout_s) {
  if (name == nullptr || answer == nullptr) return -1;
  memset(answer, 0, sizeof(*answer));
  int literal = answer_literal(name, type, answer);
  if (literal <= 0) return literal;

  const quarry::DnsSettings settings = quarry::dns_settings();
  int result = -1;
  for (int source : settings.seq) {
    if (source == quarry::kDnsSeqServers) {
      result = dns_query(name, type, qclass, answer, passes, timeout_s);
      if (result == 0) return 0;
    } else if (source == quarry::kDnsSeqHosts) {
      dns_answer found;
      memset(&found, 0, sizeof(found));
      if (quarry::hosts_lookup(quarry::dns_context(), name, type, &found)) {
        found.type = static_cast<uint32_t>(type);
        *answer = found;
        return 0;
      }
    }
  }
  return result;
}

DL_EXPORT int dl_dns_resolv(const char *name, int type, int qclass, dns_answer *answer) {
  const quarry::DnsSettings settings = quarry::dns_settings();
  return dl_dns_resolv_timeout(name, type, qclass, answer, settings.passes, settings.timeout_s);
}

}  // extern "C"

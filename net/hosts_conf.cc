// The hosts file: "address name name..." lines become (address, name)
// entries of the own resolver, the newest at the head, so that a later
// line for a name is found before an earlier one.
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "net/dns_context.h"
#include "util/util.h"

namespace {

// What a missing hosts file stands for, as its lines read without their
// newlines.
constexpr const char *kMissingFileLines[] = {"127.0.0.1\tlocalhost", "::1\tlocalhost"};

bool add_entry(dns_conf_base_st *ctx, const sockaddr_in6 &addr, socklen_t addr_len,
               const char *name) {
  size_t name_len = strlen(name);
  auto *entry = static_cast<dns_hosts_entry *>(calloc(1, sizeof(dns_hosts_entry) + name_len + 1));
  if (entry == nullptr) return false;
  entry->addr = addr;
  entry->addr_len = addr_len;
  entry->name = reinterpret_cast<char *>(entry + 1);
  memcpy(entry->name, name, name_len + 1);
  entry->next = ctx->hosts_head;
  if (ctx->hosts_head != nullptr) {
    ctx->hosts_head->prev = entry;
  } else {
    ctx->hosts_tail = entry;
  }
  ctx->hosts_head = entry;
  ++ctx->hosts_count;
  return true;
}

void parse_line(dns_conf_base_st *ctx, char *line) {
  char *save = nullptr;
  const char *addr_text = strtok_r(line, quarry::kConfSeparators, &save);
  if (addr_text == nullptr || addr_text[0] == '#') return;

  sockaddr_in6 addr;
  int addr_len = sizeof(addr);
  if (evutil_parse_sockaddr_port(addr_text, reinterpret_cast<sockaddr *>(&addr), &addr_len) != 0 ||
      addr.sin6_port != 0) {
    return;
  }
  for (char *name = strtok_r(nullptr, quarry::kConfSeparators, &save); name != nullptr;
       name = strtok_r(nullptr, quarry::kConfSeparators, &save)) {
    if (name[0] == '#') return;
    char *comment = strchr(name, '#');
    if (comment != nullptr) *comment = '\0';
    if (!add_entry(ctx, addr, static_cast<socklen_t>(addr_len), name) || comment != nullptr) return;
  }
}

int load(dns_conf_base_st *ctx, const char *path, bool empty_first) {
  if (ctx == nullptr) return -1;
  quarry::RwGuard lock(&ctx->hosts_lock, true);
  if (empty_first) quarry::free_hosts(ctx);
  quarry::UniqueFile file(path != nullptr ? fopen(path, "r") : nullptr);
  if (!file) {
    for (const char *text : kMissingFileLines) {
      char line[quarry::kConfLineRoom];
      snprintf(line, sizeof(line), "%s", text);
      parse_line(ctx, line);
    }
    return 0;
  }
  quarry::hosts_parse(ctx, file.get());
  return 0;
}

// Where the raw address of |entry| lies, when its family is |family|.
const void *entry_address(const dns_hosts_entry *entry, int family) {
  if (entry->addr.sin6_family != family) return nullptr;
  if (family == AF_INET) return &reinterpret_cast<const sockaddr_in *>(&entry->addr)->sin_addr;
  return &entry->addr.sin6_addr;
}

}  // namespace

namespace quarry {

void hosts_parse(dns_conf_base_st *ctx, FILE *file) {
  char line[kConfLineRoom];
  while (conf_next_line(file, line)) parse_line(ctx, line);
}

bool hosts_lookup(dns_conf_base_st *ctx, const char *name, int type, dns_answer *answer) {
  int family;
  size_t addr_len;
  if (type == kDnsTypeA) {
    family = AF_INET;
    addr_len = kDnsIpv4Len;
  } else if (type == kDnsTypeAAAA) {
    family = AF_INET6;
    addr_len = kDnsIpv6Len;
  } else {
    return false;
  }
  uint32_t count = 0;
  RwGuard lock(&ctx->hosts_lock, false);
  for (const dns_hosts_entry *e = ctx->hosts_head; e != nullptr && count < kDnsMaxAddrs;
       e = e->next) {
    const void *addr = entry_address(e, family);
    if (addr == nullptr || strcmp(e->name, name) != 0) continue;
    memcpy(answer->addr + count * addr_len, addr, addr_len);
    ++count;
  }
  if (count == 0) return false;
  answer->count = count;
  return true;
}

}  // namespace quarry

extern "C" {

DL_EXPORT int dns_load_hosts_real(dns_conf_base_st *ctx, const char *path) {
  return load(ctx, path, false);
}

DL_EXPORT int dns_load_hosts(const char *path) { return dns_load_hosts_real(quarry::dns_context(), path); }

DL_EXPORT int dns_reload_hosts_conf_real(dns_conf_base_st *ctx, const char *path) {
  return load(ctx, path, true);
}

DL_EXPORT int dns_reload_hosts_conf(const char *path) {
  return dns_reload_hosts_conf_real(quarry::dns_context(), path);
}

}  // extern "C"

// The resolver configuration file: its "nameserver" lines become the own
// resolver's server list. "domain", "search" and "options" are read and
// dropped: search domains and options have no effect on resolution.
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "net/dns_context.h"
#include "util/util.h"

namespace {

using quarry::kLogError;
using quarry::kModCommon;

constexpr uint16_t kDnsPort = 53;
constexpr char kMissingFileServer[] = "127.0.0.1";
// Result of adding a server to a full list.
constexpr int kListFull = -2;

int add_server(dns_conf_base_st *ctx, const char *text) {
  if (ctx->server_count >= quarry::kDnsMaxServers) return kListFull;
  sockaddr_storage ss;
  int len = sizeof(ss);
  if (evutil_parse_sockaddr_port(text, reinterpret_cast<sockaddr *>(&ss), &len) != 0) {
    libq_log(kModCommon, kLogError, "Unable to parse nameserver address %s", text);
    return -1;
  }
  // Both families keep the port at the same offset.
  auto *sin = reinterpret_cast<sockaddr_in *>(&ss);
  if (sin->sin_port == 0) sin->sin_port = htons(kDnsPort);

  auto *entry = static_cast<dns_server_entry *>(calloc(1, sizeof(dns_server_entry)));
  if (entry == nullptr) return -1;
  entry->addr = ss;
  entry->addr_len = static_cast<socklen_t>(len);
  entry->prev = ctx->server_tail;
  if (ctx->server_tail != nullptr) {
    ctx->server_tail->next = entry;
  } else {
    ctx->server_head = entry;
  }
  ctx->server_tail = entry;
  ++ctx->server_count;
  return 0;
}

void parse_line(dns_conf_base_st *ctx, char *line) {
  char *save = nullptr;
  const char *key = strtok_r(line, quarry::kConfSeparators, &save);
  if (key == nullptr) return;
  if (strcmp(key, "nameserver") == 0) {
    const char *value = strtok_r(nullptr, quarry::kConfSeparators, &save);
    if (value != nullptr) add_server(ctx, value);
  } else if (strcmp(key, "domain") == 0 || strcmp(key, "search") == 0 ||
             strcmp(key, "options") == 0) {
    // Read and dropped.
    while (strtok_r(nullptr, quarry::kConfSeparators, &save) != nullptr) {
    }
  }
}

int load(dns_conf_base_st *ctx, const char *path, bool empty_first) {
  if (ctx == nullptr) return -1;
  quarry::RwGuard lock(&ctx->server_lock, true);
  if (empty_first) quarry::free_servers(ctx);
  quarry::UniqueFile file(path != nullptr ? fopen(path, "r") : nullptr);
  if (!file) {
    add_server(ctx, kMissingFileServer);
    return 0;
  }
  quarry::resolv_conf_parse(ctx, file.get());
  return 0;
}

}  // namespace

namespace quarry {

void resolv_conf_parse(dns_conf_base_st *ctx, FILE *file) {
  char line[kConfLineRoom];
  while (conf_next_line(file, line)) parse_line(ctx, line);
}

int copy_servers(dns_conf_base_st *ctx, sockaddr_storage *out) {
  RwGuard lock(&ctx->server_lock, false);
  int n = 0;
  for (const dns_server_entry *e = ctx->server_head; e != nullptr && n < kDnsMaxServers;
       e = e->next) {
    out[n++] = e->addr;
  }
  return n;
}

}  // namespace quarry

extern "C" {

DL_EXPORT int dns_load_resolv_conf_real(dns_conf_base_st *ctx, const char *path) {
  return load(ctx, path, false);
}

DL_EXPORT int dns_load_resolv_conf(const char *path) {
  return dns_load_resolv_conf_real(quarry::dns_context(), path);
}

// Callers ignore this result; it has always been -1, reload or not.
DL_EXPORT int dns_reload_resolv_conf_real(dns_conf_base_st *ctx, const char *path) {
  load(ctx, path, true);
  return -1;
}

DL_EXPORT int dns_reload_resolv_conf(const char *path) {
  return dns_reload_resolv_conf_real(quarry::dns_context(), path);
}

}  // extern "C"

// A private resolver context for the file parser tests, and readers of its
// lists.
#ifndef QUARRY_NET_CONF_TEST_SUPPORT_H
#define QUARRY_NET_CONF_TEST_SUPPORT_H

#include <arpa/inet.h>

#include <string>
#include <vector>

#include "net/dns_context.h"

namespace quarry_test {

class PrivateContext {
 public:
  PrivateContext() { ok_ = dns_conf_base_st_init(&ctx_) == 0; }
  ~PrivateContext() { dns_conf_base_st_destroy(&ctx_); }
  PrivateContext(const PrivateContext &) = delete;
  PrivateContext &operator=(const PrivateContext &) = delete;
  dns_conf_base_st *get() { return &ctx_; }
  bool ok() const { return ok_; }

 private:
  dns_conf_base_st ctx_;
  bool ok_ = false;
};

// "address port" (IPv6 in brackets) of a socket address.
inline std::string endpoint(const sockaddr *sa) {
  char text[INET6_ADDRSTRLEN] = "";
  if (sa->sa_family == AF_INET) {
    const auto *sin = reinterpret_cast<const sockaddr_in *>(sa);
    inet_ntop(AF_INET, &sin->sin_addr, text, sizeof(text));
    return std::string(text) + " " + std::to_string(ntohs(sin->sin_port));
  }
  const auto *sin6 = reinterpret_cast<const sockaddr_in6 *>(sa);
  inet_ntop(AF_INET6, &sin6->sin6_addr, text, sizeof(text));
  return "[" + std::string(text) + "] " + std::to_string(ntohs(sin6->sin6_port));
}

// The server list in list order.
inline std::vector<std::string> servers_of(dns_conf_base_st *ctx) {
  std::vector<std::string> out;
  for (const dns_server_entry *e = ctx->server_head; e != nullptr; e = e->next) {
    out.push_back(endpoint(reinterpret_cast<const sockaddr *>(&e->addr)));
  }
  return out;
}

// The hosts list in list order, as "name address port".
inline std::vector<std::string> hosts_of(dns_conf_base_st *ctx) {
  std::vector<std::string> out;
  for (const dns_hosts_entry *e = ctx->hosts_head; e != nullptr; e = e->next) {
    out.push_back(std::string(e->name) + " " + endpoint(reinterpret_cast<const sockaddr *>(&e->addr)));
  }
  return out;
}

}  // namespace quarry_test

#endif  // QUARRY_NET_CONF_TEST_SUPPORT_H

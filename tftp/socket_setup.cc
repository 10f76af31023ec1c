// The client's UDP socket: the server's address through getaddrinfo or the
// own resolver, and a random local port.
#include <netdb.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "net/net.h"
#include "tftp/tftp.h"

namespace quarry {
namespace tftp {

namespace {

// Local ports are drawn from 1024 to 65534.
constexpr int kLocalPortBase = 1024;
constexpr int kLocalPortSpan = 64511;
constexpr int kBindRetries = 30;
constexpr size_t kIpv4Len = 4;
constexpr size_t kIpv6Len = 16;

struct AddrInfoFree {
  void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using AddrInfoList = std::unique_ptr<addrinfo, AddrInfoFree>;

// A UDP socket of |family| bound to the wildcard address on a random port,
// with the server at |addr|:|port|. Returns 0 or DL_ERR_SOCKET.
int bind_for(dl_tftp_conn *conn, int family, const void *addr, int port) {
  UniqueFd fd(socket(family, SOCK_DGRAM, 0));
  if (!fd.valid()) return DL_ERR_SOCKET;
  bool bound = false;
  for (int attempt = 0; attempt <= kBindRetries && !bound; ++attempt) {
    uint16_t local = static_cast<uint16_t>(rand() % kLocalPortSpan + kLocalPortBase);
    if (family == AF_INET6) {
      sockaddr_in6 any = {};
      any.sin6_family = AF_INET6;
      any.sin6_addr = in6addr_any;
      any.sin6_port = htons(local);
      bound = bind(fd.get(), reinterpret_cast<sockaddr *>(&any), sizeof(any)) == 0;
    } else {
      sockaddr_in any = {};
      any.sin_family = AF_INET;
      any.sin_addr.s_addr = htonl(INADDR_ANY);
      any.sin_port = htons(local);
      bound = bind(fd.get(), reinterpret_cast<sockaddr *>(&any), sizeof(any)) == 0;
    }
  }
  if (!bound) return DL_ERR_SOCKET;
  memset(&conn->server, 0, sizeof(conn->server));
  if (family == AF_INET6) {
    conn->server.in6.sin6_family = AF_INET6;
    memcpy(&conn->server.in6.sin6_addr, addr, kIpv6Len);
    conn->server.in6.sin6_port = htons(static_cast<uint16_t>(port));
  } else {
    conn->server.in4.sin_family = AF_INET;
    memcpy(&conn->server.in4.sin_addr, addr, kIpv4Len);
    conn->server.in4.sin_port = htons(static_cast<uint16_t>(port));
  }
  conn->socket = fd.release();
  return 0;
}

// AAAA first when IPv6 is on; a failed IPv6 set-up falls back to A.
int set_up_by_own_resolver(dl_tftp_conn *conn, const char *host, int port, bool ipv6) {
  dns_answer answer;
  if (ipv6 && dl_dns_resolv(host, kDnsTypeAAAA, kDnsClassIn, &answer) == 0 && answer.count >= 1 &&
      bind_for(conn, AF_INET6, answer.addr, port) == 0) {
    return 0;
  }
  if (dl_dns_resolv(host, kDnsTypeA, kDnsClassIn, &answer) != 0 || answer.count < 1) {
    return DL_ERR_HOST;
  }
  return bind_for(conn, AF_INET, answer.addr, port);
}

// The first IPv4 entry, or an IPv6 one listed before it when IPv6 is on.
int set_up_by_getaddrinfo(dl_tftp_conn *conn, const char *host, int port, bool ipv6) {
  AddrInfoList list(dl_look_up_host(host, ipv6 ? 1 : 0, SOCK_DGRAM));
  if (!list) return DL_ERR_HOST;
  for (const addrinfo *ai = list.get(); ai != nullptr; ai = ai->ai_next) {
    if (ai->ai_family == AF_INET) {
      return bind_for(conn, AF_INET, &reinterpret_cast<const sockaddr_in *>(ai->ai_addr)->sin_addr,
                      port);
    }
    if (ai->ai_family == AF_INET6 && ipv6) {
      return bind_for(conn, AF_INET6,
                      &reinterpret_cast<const sockaddr_in6 *>(ai->ai_addr)->sin6_addr, port);
    }
  }
  return DL_ERR_SOCKET;
}

}  // namespace

int set_up_socket(dl_tftp_conn *conn, const char *host, int port) {
  srand(static_cast<unsigned>(time(nullptr)));
  const TransferSettings settings = transfer_settings();
  const bool ipv6 = settings.ipv6_enable != 0;
  return settings.use_own_resolver ? set_up_by_own_resolver(conn, host, port, ipv6)
                                   : set_up_by_getaddrinfo(conn, host, port, ipv6);
}

}  // namespace tftp
}  // namespace quarry

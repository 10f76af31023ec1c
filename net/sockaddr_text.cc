// Socket addresses as the resolver files write them ("1.2.3.4",
// "1.2.3.4:53", "::1", "[::1]", "[::1]:53"), and their ordering.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "net/dns_context.h"

namespace {

// Longest address text taken between brackets or before a port.
constexpr size_t kMaxAddrText = 127;
constexpr long kMaxPort = 65535;
constexpr int kSockaddrIn4Len = sizeof(sockaddr_in);
constexpr int kSockaddrIn6Len = sizeof(sockaddr_in6);

// A port of 1 to 65535 written in decimal digits only.
bool parse_port(const char *text, int *port) {
  if (*text == '\0' || strlen(text) > 5) return false;
  long value = 0;
  for (const char *p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + (*p - '0');
  }
  if (value < 1 || value > kMaxPort) return false;
  *port = static_cast<int>(value);
  return true;
}

// Copies |len| characters of |src| into |dst| (kMaxAddrText + 1 bytes).
bool take_addr(const char *src, size_t len, char *dst) {
  if (len > kMaxAddrText) return false;
  memcpy(dst, src, len);
  dst[len] = '\0';
  return true;
}

}  // namespace

extern "C" {

DL_EXPORT int evutil_parse_sockaddr_port(const char *str, struct sockaddr *out, int *outlen) {
  if (str == nullptr || out == nullptr || outlen == nullptr) return -1;
  char addr[kMaxAddrText + 1];
  const char *port_text = nullptr;
  bool v6;
  if (str[0] == '[') {
    const char *close = strchr(str, ']');
    if (close == nullptr || !take_addr(str + 1, static_cast<size_t>(close - str - 1), addr)) {
      return -1;
    }
    if (close[1] == ':') {
      port_text = close + 2;
    } else if (close[1] != '\0') {
      return -1;
    }
    v6 = true;
  } else {
    const char *colon = strchr(str, ':');
    if (colon != nullptr && strchr(colon + 1, ':') != nullptr) {
      // Several colons: an IPv6 address, which cannot carry a port here.
      if (!take_addr(str, strlen(str), addr)) return -1;
      v6 = true;
    } else if (colon != nullptr) {
      if (!take_addr(str, static_cast<size_t>(colon - str), addr)) return -1;
      port_text = colon + 1;
      v6 = false;
    } else {
      if (!take_addr(str, strlen(str), addr)) return -1;
      v6 = false;
    }
  }

  int port = 0;
  if (port_text != nullptr && !parse_port(port_text, &port)) return -1;
  const int need = v6 ? kSockaddrIn6Len : kSockaddrIn4Len;
  if (*outlen < need) return -1;

  if (v6) {
    in6_addr a6;
    if (inet_pton(AF_INET6, addr, &a6) != 1) return -1;
    memset(out, 0, static_cast<size_t>(*outlen));
    auto *sin6 = reinterpret_cast<sockaddr_in6 *>(out);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(static_cast<uint16_t>(port));
    sin6->sin6_addr = a6;
  } else {
    in_addr a4;
    if (inet_pton(AF_INET, addr, &a4) != 1) return -1;
    memset(out, 0, static_cast<size_t>(*outlen));
    auto *sin = reinterpret_cast<sockaddr_in *>(out);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(static_cast<uint16_t>(port));
    sin->sin_addr = a4;
  }
  *outlen = need;
  return 0;
}

DL_EXPORT int evutil_sockaddr_cmp(const struct sockaddr *sa1, const struct sockaddr *sa2,
                                  int include_port) {
  if (sa1->sa_family != sa2->sa_family) return sa1->sa_family - sa2->sa_family;
  int r;
  int port_diff;
  if (sa1->sa_family == AF_INET) {
    const auto *a = reinterpret_cast<const sockaddr_in *>(sa1);
    const auto *b = reinterpret_cast<const sockaddr_in *>(sa2);
    if (a->sin_addr.s_addr < b->sin_addr.s_addr) {
      r = -1;
    } else {
      r = a->sin_addr.s_addr > b->sin_addr.s_addr ? 1 : 0;
    }
    port_diff = static_cast<int>(a->sin_port) - static_cast<int>(b->sin_port);
  } else if (sa1->sa_family == AF_INET6) {
    const auto *a = reinterpret_cast<const sockaddr_in6 *>(sa1);
    const auto *b = reinterpret_cast<const sockaddr_in6 *>(sa2);
    r = memcmp(&a->sin6_addr, &b->sin6_addr, sizeof(a->sin6_addr));
    port_diff = static_cast<int>(a->sin6_port) - static_cast<int>(b->sin6_port);
  } else {
    return 1;
  }
  if (r != 0 || include_port == 0) return r;
  return port_diff;
}

}  // extern "C"

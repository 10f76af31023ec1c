// Host look-up through libc's getaddrinfo.
#include <netdb.h>
#include <string.h>
#include <sys/socket.h>

#include "net/net.h"

extern "C" {

DL_EXPORT struct addrinfo *dl_look_up_host(const char *host, int ipv6, int socktype) {
  addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = ipv6 != 0 ? AF_UNSPEC : AF_INET;
  hints.ai_socktype = socktype;
  // No service: the port is filled in by the caller. A null host is what
  // getaddrinfo itself would refuse for want of both name and service.
  addrinfo *list = nullptr;
  int rc = host != nullptr ? getaddrinfo(host, nullptr, &hints, &list) : EAI_NONAME;
  if (rc != 0) {
    libq_log(quarry::kModCommon, quarry::kLogError, "getaddrinfo: %s\n", gai_strerror(rc));
    return nullptr;
  }
  return list;
}

}  // extern "C"

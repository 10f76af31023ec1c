// One question to the configured name servers over UDP: every server in
// list order, for a number of passes, each bounded by a time-out. One
// socket per address family serves every server and pass of the query.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "net/dns_context.h"
#include "net/dns_message.h"

namespace {

using quarry::kLogError;
using quarry::kModCommon;

constexpr uint16_t kIdMask = 0xffff;
// The address length handed to sendto: the room of a server entry.
constexpr socklen_t kServerAddrLen = sizeof(sockaddr_storage);

// Failures are only reported: a blocking socket still works, just with
// the time-out left to the wait alone.
void make_non_blocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) {
    perror("fcntl(F_GETFL)");
    return;
  }
  if ((flags & O_NONBLOCK) == 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    perror("fcntl(F_SETFL)");
  }
}

// Waits once, up to |timeout_s| seconds, for |fd| to be readable; a
// signal ends it as a failed wait.
bool wait_readable(int fd, int timeout_s) {
  return quarry::wait_once(fd, quarry::kWaitReadable,
                           static_cast<long long>(timeout_s) * quarry::kMsPerSecond) > 0;
}

struct Question {
  const char *name;
  int type;
  int qclass;
  uint16_t id;
};

// Sends the question to one server and reads its one reply. Returns 0,
// kDnsNoData or -1 as dns_read_reply, -1 for anything that kept a reply
// from arriving.
int ask_server(int fd, const sockaddr_storage &server, const Question &q, int timeout_s,
               dns_answer *answer) {
  uint8_t msg[quarry::kDnsMessageRoom];
  size_t len = quarry::dns_build_query(msg, sizeof(msg), q.id, q.name, q.type, q.qclass);
  if (len == 0) return -1;
  if (sendto(fd, msg, len, 0, reinterpret_cast<const sockaddr *>(&server), kServerAddrLen) < 0) {
    perror("send error\n");
    return -1;
  }
  make_non_blocking(fd);
  if (!wait_readable(fd, timeout_s)) return -1;
  // Whoever sent it, the reply is read as this server's.
  sockaddr_storage from;
  socklen_t from_len = sizeof(from);
  ssize_t got = recvfrom(fd, msg, sizeof(msg), 0, reinterpret_cast<sockaddr *>(&from), &from_len);
  if (got < 1) return -1;
  // Each reply starts from a clean record, so that one given up half-way
  // leaves nothing for the next to add to.
  memset(answer, 0, sizeof(*answer));
  answer->type = static_cast<uint32_t>(q.type);
  return quarry::dns_read_reply(msg, static_cast<size_t>(got), q.id, q.name, q.type, answer);
}

}  // namespace

extern "C" {

DL_EXPORT int dns_query(const char *name, int type, int qclass, dns_answer *answer, int passes,
                        int timeout_s) {
  if (name == nullptr || answer == nullptr) return -1;
  sockaddr_storage servers[quarry::kDnsMaxServers];
  const int count = quarry::copy_servers(quarry::dns_context(), servers);
  const Question q = {name, type, qclass, static_cast<uint16_t>(rand() & kIdMask)};
  if (passes < 1) return -1;

  memset(answer, 0, sizeof(*answer));
  answer->type = static_cast<uint32_t>(type);
  quarry::UniqueFd v4;
  quarry::UniqueFd v6;
  int result = -1;
  for (int pass = 0; pass < passes; ++pass) {
    for (int i = 0; i < count; ++i) {
      const int family = servers[i].ss_family;
      quarry::UniqueFd &sock = family == AF_INET6 ? v6 : v4;
      if (!sock.valid()) {
        sock.reset(socket(family, SOCK_DGRAM, 0));
        if (!sock.valid()) {
          libq_log(kModCommon, kLogError, "dns resolv socket init error\n");
          return -1;
        }
      }
      result = ask_server(sock.get(), servers[i], q, timeout_s, answer);
      if (result == 0) return 0;
    }
  }
  return result;
}

}  // extern "C"

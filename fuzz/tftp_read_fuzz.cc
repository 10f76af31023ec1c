// libFuzzer target for the packet handling of dl_tftp_read: the input is
// the read length and a series of datagrams (OACK, DATA, ERROR or
// anything) that a loopback "server" socket sends to the client's socket
// before the reads; the wait time is zero, so a read ends once they run
// out.
//
// Input: byte 0 picks the read length, then records of a two-byte
// big-endian length and that many bytes, each one datagram.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "quarry.h"
#include "quarry_internal.h"
#include "tftp/tftp.h"

namespace {

constexpr size_t kMaxDatagrams = 48;
constexpr size_t kMaxDatagram = 1600;
constexpr int kMaxReads = 256;
constexpr int kReadUnit = 29;

int g_server = -1;
sockaddr_in g_server_addr = {};

int bound_udp(sockaddr_in *addr) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  memset(addr, 0, sizeof(*addr));
  addr->sin_family = AF_INET;
  addr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(*addr);
  if (bind(fd, reinterpret_cast<sockaddr *>(addr), len) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(addr), &len) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// The client's ACKs and errors pile up at the server socket; drop them.
void empty_server_queue() {
  char buf[kMaxDatagram];
  while (recv(g_server, buf, sizeof(buf), MSG_DONTWAIT) >= 0) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  // Reads wait for nothing: queued datagrams only.
  g_dl_cfg.timeout_s = 0;
  g_server = bound_udp(&g_server_addr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || g_server < 0) return 0;
  const int read_len = (data[0] + 1) * kReadUnit;
  dl_tftp_conn *conn = quarry::tftp::conn_new(1);
  if (conn == nullptr) return 0;
  sockaddr_in client_addr;
  conn->socket = bound_udp(&client_addr);
  if (conn->socket < 0) {
    dl_tftp_close(conn);
    return 0;
  }
  conn->server.in4 = g_server_addr;

  size_t at = 1;
  for (size_t count = 0; count < kMaxDatagrams && at + 2 <= size; ++count) {
    size_t len = static_cast<size_t>((data[at] << 8) | data[at + 1]) % kMaxDatagram;
    at += 2;
    if (len > size - at) len = size - at;
    sendto(g_server, data + at, len, 0, reinterpret_cast<sockaddr *>(&client_addr),
           sizeof(client_addr));
    at += len;
  }

  static uint8_t buf[256 * kReadUnit];
  dl_error err;
  for (int i = 0; i < kMaxReads; ++i) {
    int n = dl_tftp_read(conn, buf, read_len, &err);
    if (n < 0 || (n == 0 && conn->spill_len == 0)) break;
    if (n > read_len) __builtin_trap();
  }
  dl_tftp_close(conn);
  empty_server_queue();
  return 0;
}

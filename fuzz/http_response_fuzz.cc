// libFuzzer target for reading a response as a hostile server would send
// it: the input after its first byte is what the server says before it
// closes; the first byte picks the piece size the body is read in. Runs
// the status line, the header block and the body (by length, chunked or
// until the close) through the handle's receive buffer.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "http/http_conn.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace {

constexpr size_t kMaxInput = 65536;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  for (unsigned m = 0; m < LIBQ_LOG_MODULES; ++m) libq_log_set(m, 0);
  uint32_t timeout = 1;
  dl_set_option(DL_OPT_TIMEOUT, &timeout);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
  int buf_size = static_cast<int>(kMaxInput * 2);
  setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &buf_size, sizeof(buf_size));
  setsockopt(fds[0], SOL_SOCKET, SO_RCVBUF, &buf_size, sizeof(buf_size));
  // The whole reply is in the socket and the server gone before the first
  // read, so no read ever waits.
  size_t done = 1;
  while (done < size) {
    ssize_t n = send(fds[1], data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fds[1]);
  if (done < size) {
    close(fds[0]);
    return 0;
  }

  auto *conn = static_cast<dl_http_conn *>(calloc(1, sizeof(dl_http_conn)));
  conn->magic = DL_HTTP_MAGIC;
  conn->sock = fds[0];
  int status = http_read_status(conn);
  uint32_t block_size = quarry::kHeaderBlockStart;
  if (status >= 0 && quarry::http_read_headers(conn, status, &block_size) == 0) {
    dl_http_find_header_by_name(conn, "Content-Type");
    int piece = 1 + data[0] * 8;
    char *buf = static_cast<char *>(malloc(static_cast<size_t>(piece)));
    dl_error err;
    while (dl_http_read(conn, buf, piece, &err) > 0) {
    }
    free(buf);
  }
  http_reset(conn);
  free(conn);
  return 0;
}

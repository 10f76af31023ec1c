// libFuzzer target for the HTTP open flow's response handling: the input is what a
// server says after a request, written into a socket pair whose far end
// then stops sending. http_handle_response reads status lines and header
// blocks (following redirects on the same connection, as through a proxy,
// or answering 401 challenges), then dl_http_read reads the body (by
// length, until the end, or chunked) and a few headers are looked up.
//
// Input: byte 0 picks the flow (bit 0: redirects followed on the same
// connection without credentials, else credentials and redirects stopped;
// bit 1: data tracing), byte 1 the body read size; the rest is the stream.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "http/http_conn.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace {

// Well inside a socket pair's buffer, so that one write takes it all and
// the requests the client sends back fit beside it.
constexpr size_t kMaxInput = 32768;
constexpr size_t kHeadBytes = 2;
constexpr int kReadSizes[] = {1, 7, 512, 4096};
constexpr int kMaxReads = 100000;
// Nothing listens there: a reconnect for a 401 fails at once.
constexpr char kUrl[] = "http://127.0.0.1:1/file.txt";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  uint32_t redirects = 3;
  dl_set_option(DL_OPT_MAX_REDIRECTS, &redirects);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < kHeadBytes || size > kMaxInput) return 0;
  const bool follow = (data[0] & 1u) != 0;
  uint32_t trace = (data[0] & 2u) ? 1u : 0u;
  dl_set_option(DL_OPT_DATA_TRACE, &trace);
  const int piece = kReadSizes[data[1] % (sizeof(kReadSizes) / sizeof(kReadSizes[0]))];

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
  const size_t len = size - kHeadBytes;
  if (len > 0 && write(fds[1], data + kHeadBytes, len) != static_cast<ssize_t>(len)) {
    close(fds[0]);
    close(fds[1]);
    return 0;
  }
  // The far end stays open for what the client sends back.
  shutdown(fds[1], SHUT_WR);

  auto *conn = static_cast<dl_http_conn *>(calloc(1, sizeof(dl_http_conn)));
  conn->magic = DL_HTTP_MAGIC;
  conn->sock = fds[0];
  int err = 0;
  dl_url *url = dl_url_parse(kUrl, follow ? nullptr : "user", follow ? nullptr : "secret", &err);
  dl_url *proxy = dl_url_parse(kUrl, nullptr, nullptr, &err);
  dl_http_request *req = http_request_new();
  if (url != nullptr && proxy != nullptr && req != nullptr) {
    req->mode = follow ? DL_EX_NONE : DL_EX_NO_TRY_REDIRECT;
    char redirect[512] = {};
    if (http_make_request(0, req, nullptr, nullptr, url) == 0 &&
        http_handle_response(conn, &url, follow ? proxy : nullptr, req, redirect) == 0 &&
        conn->sock != 0) {
      dl_http_find_header_by_name(conn, "Content-Type");
      dl_http_find_header_by_name(conn, "Location");
      char buf[4096];
      dl_error derr = {};
      for (int i = 0; i < kMaxReads && dl_http_read(conn, buf, piece, &derr) > 0; ++i) {
      }
    }
  }
  http_request_free(req);
  dl_url_free(url);
  dl_url_free(proxy);
  http_reset(conn);
  free(conn);
  close(fds[1]);
  return 0;
}

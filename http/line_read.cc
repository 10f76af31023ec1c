// Reading from the connection: single reads, and lines. Everything read
// passes through the handle's receive buffer: a line read takes only its
// own bytes from it, so the body that follows a header block stays there
// for the next read, and a whole response head costs one receive.
#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "core/core.h"
#include "http/http_conn.h"
#include "util/util.h"

namespace {

constexpr int kWaitReadable = 1;
constexpr int kWaitWritable = 2;

void log_error(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

int peek_failed() {
  log_error("Peek error!\n");
  return DL_ERR_READ;
}

int wait_mode(int ssl_error) {
  return ssl_error == SSL_ERROR_WANT_WRITE ? kWaitWritable : kWaitReadable;
}

int select_failed() {
  libq_log(quarry::kModHttp, quarry::kLogError, "Select error! errno %d\n", errno);
  return DL_ERR_READ;
}

// One recv on the plain socket, repeated on EINTR; it waits for the
// socket only when nothing has arrived yet, or first when |wait_first|
// says that nothing can have. Returns recv's result, or DL_ERR_READ when
// the wait failed (logged).
int plain_receive(dl_http_conn *conn, void *buf, int len, int timeout, bool wait_first = false) {
  if (wait_first && dl_select(conn->sock, kWaitReadable, timeout) < 1) return select_failed();
  for (;;) {
    ssize_t n = recv(conn->sock, buf, static_cast<size_t>(len), MSG_DONTWAIT);
    if (n >= 0) return static_cast<int>(n);
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return static_cast<int>(n);
    if (dl_select(conn->sock, kWaitReadable, timeout) < 1) return select_failed();
  }
}

struct TlsResult {
  int n;             // SSL_read's result
  bool wait_failed;  // a wait for the socket failed first
};

// One SSL_read, waiting for the socket while OpenSSL wants it; the
// non-blocking socket of a TLS connection makes that the normal case.
// Any other failure is logged, as the failure of a line read when
// |for_line| is set.
TlsResult tls_receive(dl_http_conn *conn, void *buf, int len, bool for_line, int timeout) {
  for (;;) {
    ERR_clear_error();
    int n = SSL_read(conn->ssl, buf, len);
    if (n >= 0) return {n, false};
    int err = SSL_get_error(conn->ssl, n);
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
      if (dl_select(conn->sock, wait_mode(err), timeout) < 1) return {n, true};
      continue;
    }
    if (for_line) {
      libq_log(quarry::kModHttp, quarry::kLogError,
               "SSL_peek ret = %d len %d errno %d, ssl errno %d\n", n, len, errno, err);
    } else {
      libq_log(quarry::kModHttp, quarry::kLogError,
               "SSL_read ret = %d len %d errno %d, ssl errno %d\n", n, len, errno, err);
    }
    return {n, false};
  }
}

// One receive from the connection into |buf|, with http_recv's results.
int receive(dl_http_conn *conn, void *buf, int len, int timeout) {
  if ((conn->flags & DL_HTTP_TLS) == 0) return plain_receive(conn, buf, len, timeout);
  if (conn->ssl == nullptr) {
    log_error("context ssl is null\n");
    return DL_ERR_READ;
  }
  TlsResult r = tls_receive(conn, buf, len, false, timeout);
  return r.wait_failed ? -1 : r.n;
}

// Receives more bytes after those buffered for a line. Returns the count,
// 0 when the peer closed, or DL_ERR_READ (logged).
int receive_for_line(dl_http_conn *conn, dl_http_rx *rx, int timeout) {
  uint8_t *at = rx->data + rx->end;
  int room = static_cast<int>(kHttpRxSize - rx->end);
  int n;
  if ((conn->flags & DL_HTTP_TLS) == 0) {
    n = plain_receive(conn, at, room, timeout, rx->reply_pending != 0);
    rx->reply_pending = 0;
  } else if (conn->ssl == nullptr) {
    log_error("context ssl is null\n");
    n = -1;
  } else {
    n = tls_receive(conn, at, room, true, timeout).n;
  }
  return n < 0 ? peek_failed() : n;
}

// The handle's receive buffer, allocated on first use; null when memory
// is short.
dl_http_rx *rx_of(dl_http_conn *conn) {
  if (conn->rx == nullptr) {
    conn->rx = static_cast<dl_http_rx *>(malloc(sizeof(dl_http_rx)));
    if (conn->rx == nullptr) return nullptr;
    conn->rx->start = 0;
    conn->rx->end = 0;
    conn->rx->reply_pending = 0;
  }
  return conn->rx;
}

uint32_t buffered(const dl_http_conn *conn) {
  return conn->rx == nullptr ? 0 : conn->rx->end - conn->rx->start;
}

// Hands out up to |len| buffered bytes.
int take(dl_http_rx *rx, void *buf, int len) {
  uint32_t n = rx->end - rx->start;
  if (static_cast<uint32_t>(len) < n) n = static_cast<uint32_t>(len);
  memcpy(buf, rx->data + rx->start, n);
  rx->start += n;
  return static_cast<int>(n);
}

// Where "\r\n" starts in the first |len| bytes of |buf|, or -1. Searched
// as bytes, so a stray NUL in a line cannot hide its end.
long find_crlf(const uint8_t *buf, size_t len) {
  const void *at = memmem(buf, len, "\r\n", 2);
  return at == nullptr ? -1 : static_cast<const uint8_t *>(at) - buf;
}

}  // namespace

extern "C" {

DL_EXPORT int http_recv(dl_http_conn *conn, void *buf, int len) {
  if (!quarry::http_conn_live(conn) || buf == nullptr || len < 0) {
    log_error("http recv with invalid parameter\n");
    return -1;
  }
  if (buffered(conn) > 0) return take(conn->rx, buf, len);
  int timeout = quarry::cfg_read(&dl_config::timeout_s);
  // A read as large as the buffer gains nothing from it; without memory
  // for the buffer, reading directly still works.
  dl_http_rx *rx = len >= static_cast<int>(kHttpRxSize) ? nullptr : rx_of(conn);
  if (rx == nullptr) return receive(conn, buf, len, timeout);
  int n = receive(conn, rx->data, static_cast<int>(kHttpRxSize), timeout);
  if (n <= 0) return n;
  rx->start = 0;
  rx->end = static_cast<uint32_t>(n);
  return take(rx, buf, len);
}

DL_EXPORT int http_read_line(dl_http_conn *conn, int initial_size, int max_size, char *out,
                             int out_room) {
  bool complete = false;
  return quarry::http_read_line_ended(conn, initial_size, max_size, out, out_room, &complete);
}

}  // extern "C"

namespace quarry {

void http_expect_reply(dl_http_conn *conn) {
  dl_http_rx *rx = rx_of(conn);
  if (rx != nullptr && rx->start == rx->end) rx->reply_pending = 1;
}

int http_read_line_ended(dl_http_conn *conn, int initial_size, int max_size, char *out,
                         int out_room, bool *complete) {
  *complete = false;
  if (!http_conn_live(conn) || out == nullptr || initial_size < 2 || max_size < initial_size ||
      out_room < 1) {
    log_error("http read line with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  dl_http_rx *rx = rx_of(conn);
  if (rx == nullptr) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  int timeout = -1;
  for (;;) {
    const uint8_t *line = rx->data + rx->start;
    uint32_t avail = rx->end - rx->start;
    long crlf = find_crlf(line, avail);
    // What the line takes from the stream: through its CRLF, or all that
    // came of it so far.
    uint32_t used = crlf >= 0 ? static_cast<uint32_t>(crlf) + 2 : avail;
    // Counted in bytes taken rather than by strlen: the bound must hold
    // for a line with a NUL in it too.
    if (used + 1 >= static_cast<uint32_t>(out_room) || used == kHttpRxSize) {
      rx->start += used;
      libq_log(kModHttp, kLogError, "Buffer not enough! buffer len %d\n", out_room);
      return DL_ERR_READ;
    }
    if (crlf >= 0) {
      memcpy(out, line, static_cast<size_t>(crlf));
      out[crlf] = '\0';
      rx->start += used;
      *complete = true;
      return static_cast<int>(crlf);
    }
    // Keep the partial line at the front and receive behind it.
    if (rx->start > 0) {
      memmove(rx->data, line, avail);
      rx->start = 0;
      rx->end = avail;
    }
    if (timeout < 0) timeout = cfg_read(&dl_config::timeout_s);
    int n = receive_for_line(conn, rx, timeout);
    if (n < 0) return n;
    if (n == 0) {
      // The peer closed: hand over what came of the line.
      if (avail > 0) {
        memcpy(out, rx->data, avail);
        out[avail] = '\0';
        rx->start = rx->end;
      }
      return static_cast<int>(avail);
    }
    rx->end += static_cast<uint32_t>(n);
  }
}

}  // namespace quarry

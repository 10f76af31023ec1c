// Reading from the connection: single reads, and lines read by peeking so
// that nothing past a line's CRLF leaves the socket and the body that
// follows a header block stays unread.
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

using BytePtr = quarry::UniqueMalloc<char>;

void log_error(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

int peek_failed() {
  log_error("Peek error!\n");
  return DL_ERR_READ;
}

int wait_mode(int ssl_error) {
  return ssl_error == SSL_ERROR_WANT_WRITE ? kWaitWritable : kWaitReadable;
}

// One recv on the plain socket after waiting for it, repeated on EINTR.
// Returns recv's result, or DL_ERR_READ when the wait failed (logged).
int plain_receive(dl_http_conn *conn, void *buf, int len, int flags, int timeout) {
  if (dl_select(conn->sock, kWaitReadable, timeout) < 1) {
    libq_log(quarry::kModHttp, quarry::kLogError, "Select error! errno %d\n", errno);
    return DL_ERR_READ;
  }
  ssize_t n;
  do {
    n = recv(conn->sock, buf, static_cast<size_t>(len), flags);
  } while (n < 0 && errno == EINTR);
  return static_cast<int>(n);
}

struct TlsResult {
  int n;             // SSL_read's or SSL_peek's result
  bool wait_failed;  // a wait for the socket failed first
};

// One SSL_read or SSL_peek, waiting for the socket while OpenSSL wants it;
// the non-blocking socket of a TLS connection makes that the normal case.
// Any other failure is logged.
TlsResult tls_receive(dl_http_conn *conn, void *buf, int len, bool peek, int timeout) {
  for (;;) {
    ERR_clear_error();
    int n = peek ? SSL_peek(conn->ssl, buf, len) : SSL_read(conn->ssl, buf, len);
    if (n >= 0) return {n, false};
    int err = SSL_get_error(conn->ssl, n);
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
      if (dl_select(conn->sock, wait_mode(err), timeout) < 1) return {n, true};
      continue;
    }
    if (peek) {
      libq_log(quarry::kModHttp, quarry::kLogError,
               "SSL_peek ret = %d len %d errno %d, ssl errno %d\n", n, len, errno, err);
    } else {
      libq_log(quarry::kModHttp, quarry::kLogError,
               "SSL_read ret = %d len %d errno %d, ssl errno %d\n", n, len, errno, err);
    }
    return {n, false};
  }
}

// Peeks up to |len| bytes. Returns the count, 0 when the peer closed, or
// DL_ERR_READ (logged).
int peek(dl_http_conn *conn, char *buf, int len, int timeout) {
  int n;
  if ((conn->flags & DL_HTTP_TLS) == 0) {
    n = plain_receive(conn, buf, len, MSG_PEEK, timeout);
  } else if (conn->ssl == nullptr) {
    log_error("context ssl is null\n");
    n = -1;
  } else {
    n = tls_receive(conn, buf, len, true, timeout).n;
  }
  return n < 0 ? peek_failed() : n;
}

// Where "\r\n" starts in the first |len| bytes of |buf|, or -1. Searched
// as bytes, so a stray NUL in a line cannot hide its end.
long find_crlf(const char *buf, size_t len) {
  const void *at = memmem(buf, len, "\r\n", 2);
  return at == nullptr ? -1 : static_cast<const char *>(at) - buf;
}

}  // namespace

extern "C" {

DL_EXPORT int http_recv(dl_http_conn *conn, void *buf, int len) {
  if (!quarry::http_conn_live(conn) || buf == nullptr || len < 0) {
    log_error("http recv with invalid parameter\n");
    return -1;
  }
  int timeout = quarry::cfg_read(&dl_config::timeout_s);
  if ((conn->flags & DL_HTTP_TLS) == 0) return plain_receive(conn, buf, len, 0, timeout);
  if (conn->ssl == nullptr) {
    log_error("context ssl is null\n");
    return DL_ERR_READ;
  }
  TlsResult r = tls_receive(conn, buf, len, false, timeout);
  return r.wait_failed ? -1 : r.n;
}

DL_EXPORT int http_read_line(dl_http_conn *conn, int initial_size, int max_size, char *out,
                             int out_room) {
  bool complete = false;
  return quarry::http_read_line_ended(conn, initial_size, max_size, out, out_room, &complete);
}

}  // extern "C"

namespace quarry {

int http_read_line_ended(dl_http_conn *conn, int initial_size, int max_size, char *out,
                         int out_room, bool *complete) {
  *complete = false;
  if (!quarry::http_conn_live(conn) || out == nullptr || initial_size < 2 ||
      max_size < initial_size || out_room < 1) {
    log_error("http read line with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  int timeout = quarry::cfg_read(&dl_config::timeout_s);
  int size = initial_size;
  BytePtr work(static_cast<char *>(malloc(static_cast<size_t>(size))));
  if (work == nullptr) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  int fill = 0;
  for (;;) {
    int room = size - 1 - fill;
    int peeked = room > 0 ? peek(conn, work.get() + fill, room, timeout) : 0;
    if (peeked < 0) return peeked;
    int got = 0;
    long crlf = -1;
    if (peeked > 0) {
      work.get()[fill + peeked] = '\0';
      crlf = find_crlf(work.get(), static_cast<size_t>(fill + peeked));
      int want = crlf >= 0 ? static_cast<int>(crlf) + 2 - fill : peeked;
      got = http_recv(conn, work.get() + fill, want);
      if (got < 0) {
        libq_log(quarry::kModHttp, quarry::kLogError, "read line error, ret %d\n", got);
        return DL_ERR_READ;
      }
      fill += got;
      // Counted in bytes taken rather than by strlen: the bound must hold
      // for a line with a NUL in it too.
      if (fill + 1 >= out_room) {
        libq_log(quarry::kModHttp, quarry::kLogError, "Buffer not enough! buffer len %d\n",
                 out_room);
        return DL_ERR_READ;
      }
      if (got > 0 && crlf >= 0 && crlf + 2 <= fill) {
        work.get()[crlf] = '\0';
        memcpy(out, work.get(), static_cast<size_t>(crlf) + 1);
        *complete = true;
        return static_cast<int>(crlf);
      }
    }
    if (got == 0) {
      // The peer closed: hand over what came of the line.
      if (fill > 0) {
        memcpy(out, work.get(), static_cast<size_t>(fill));
        out[fill] = '\0';
      }
      return fill;
    }
    if (fill == size - 1 && size < max_size) {
      int grown = size > max_size / 2 ? max_size : size * 2;
      auto *bigger = static_cast<char *>(realloc(work.get(), static_cast<size_t>(grown)));
      if (bigger == nullptr) {
        log_error("Out of memory\n");
        return DL_ERR_NOMEM;
      }
      work.release();
      work.reset(bigger);
      size = grown;
    }
  }
}

}  // namespace quarry

// Serialising and sending a built request, writing on the connection, and
// the data trace that shows what goes over the wire.
#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "core/core.h"
#include "http/http_conn.h"
#include "util/util.h"

namespace {

// From this many bytes on, header and body are written one after the
// other instead of being gathered into one block.
constexpr size_t kSeparateSendAt = 16385;
// Piece sizes of the file when gathered and when written directly.
constexpr size_t kGatherPiece = 512;
constexpr size_t kSendPiece = 16384;
// Trace pieces: 191 bytes of data and a terminator.
constexpr size_t kTracePiece = 191;
// Consecutive SSL_write results of 0 taken before the session counts as
// closed.
constexpr int kZeroWriteLimit = 16;

constexpr unsigned kTraceInfo = 1;
constexpr unsigned kTraceError = 2;

using BytePtr = quarry::UniqueMalloc<char>;

void log_error(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

int write_failed() {
  libq_log(quarry::kModHttp, quarry::kLogError, "write error, errno %d\n", errno);
  return DL_ERR_SEND;
}

size_t header_size(const dl_http_request *req) {
  size_t size = strlen(req->request_line) + 2;
  for (int32_t i = 0; i < req->count; ++i) {
    size += strlen(req->headers[i].name) + strlen(req->headers[i].value) + 4;
  }
  if (req->extra != nullptr) size += strlen(req->extra);
  return size;
}

// Writes the header block into |out| (room for |size| bytes and a NUL)
// and traces it.
void fill_header(const dl_http_request *req, char *out, size_t size, unsigned trace) {
  size_t at = 0;
  auto put = [&](const char *text) {
    size_t n = strlen(text);
    memcpy(out + at, text, n);
    at += n;
  };
  put(req->request_line);
  for (int32_t i = 0; i < req->count; ++i) {
    put(req->headers[i].name);
    put(": ");
    put(req->headers[i].value);
    put("\r\n");
  }
  if (req->extra != nullptr) put(req->extra);
  put("\r\n");
  out[size] = '\0';
  if (trace != 0) {
    log_error("HTTP request header:\n");
    http_trace(out, static_cast<int>(size));
  }
}

// Bytes of the file that belong to the body: what was measured when the
// body was prepared, so a file that grew since is not read past that.
size_t file_bytes(const dl_http_body *body) {
  if (body->file == nullptr) return 0;
  long long n = static_cast<long long>(body->total) - body->head_len - body->tail_len;
  return n > 0 ? static_cast<size_t>(n) : 0;
}

size_t tail_bytes(const dl_http_body *body) {
  return body->tail != nullptr && body->tail_len > 0 ? static_cast<size_t>(body->tail_len) : 0;
}

void trace_body(unsigned trace, const char *data, size_t len) {
  if (trace == 0 || len == 0) return;
  log_error("HTTP request body:\n");
  http_trace(data, static_cast<int>(len));
}

// Header and body in one block, written at once.
int send_gathered(dl_http_conn *conn, const dl_http_request *req, size_t head_size,
                  unsigned trace) {
  const dl_http_body *body = req->body;
  size_t file_len = file_bytes(body);
  size_t tail_len = tail_bytes(body);
  size_t room = head_size + body->head_len + file_len + tail_len;
  BytePtr block(static_cast<char *>(malloc(room + 1)));
  if (block == nullptr) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  fill_header(req, block.get(), head_size, trace);
  size_t at = head_size;
  if (body->head != nullptr && body->head_len > 0) {
    memcpy(block.get() + at, body->head, body->head_len);
    trace_body(trace, block.get() + at, body->head_len);
    at += body->head_len;
  }
  if (file_len > 0) {
    rewind(body->file);
    size_t left = file_len;
    while (left > 0) {
      size_t n = fread(block.get() + at, 1, left < kGatherPiece ? left : kGatherPiece, body->file);
      if (n == 0) break;
      trace_body(trace, block.get() + at, n);
      at += n;
      left -= n;
    }
  }
  if (tail_len > 0) {
    memcpy(block.get() + at, body->tail, tail_len);
    trace_body(trace, block.get() + at, tail_len);
    at += tail_len;
  }
  return http_write(conn, block.get(), static_cast<int>(at));
}

// Header block first, then head, file and tail each written as they are.
int send_separately(dl_http_conn *conn, const dl_http_request *req, size_t head_size,
                    unsigned trace) {
  libq_log(quarry::kModHttp, quarry::kLogNotice, "http send separately\n");
  const dl_http_body *body = req->body;
  BytePtr block(static_cast<char *>(malloc(head_size + 1)));
  size_t file_len = file_bytes(body);
  BytePtr piece(file_len > 0 ? static_cast<char *>(malloc(kSendPiece)) : nullptr);
  if (block == nullptr || (file_len > 0 && piece == nullptr)) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  fill_header(req, block.get(), head_size, trace);
  int ret = http_write(conn, block.get(), static_cast<int>(head_size));
  if (ret == 0 && body->head != nullptr) {
    ret = http_write(conn, body->head, static_cast<int>(body->head_len));
  }
  if (ret == 0 && file_len > 0) {
    rewind(body->file);
    size_t left = file_len;
    while (ret == 0 && left > 0) {
      size_t n = fread(piece.get(), 1, left < kSendPiece ? left : kSendPiece, body->file);
      if (n == 0) break;
      ret = http_write(conn, piece.get(), static_cast<int>(n));
      left -= n;
    }
  }
  if (ret == 0) ret = http_write(conn, body->tail, static_cast<int>(tail_bytes(body)));
  return ret;
}

int write_tls(dl_http_conn *conn, const char *data, int len) {
  if (conn->ssl == nullptr) return write_failed();
  int timeout = quarry::cfg_read(&dl_config::timeout_s);
  int zero_writes = 0;
  int done = 0;
  while (done < len) {
    ERR_clear_error();
    int n = SSL_write(conn->ssl, data + done, len - done);
    if (n > 0) {
      done += n;
      zero_writes = 0;
      continue;
    }
    if (n == 0) {
      if (++zero_writes >= kZeroWriteLimit) return write_failed();
      continue;
    }
    int err = SSL_get_error(conn->ssl, n);
    if (n != -1 || (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE)) {
      return write_failed();
    }
    // The socket is non-blocking under TLS: wait for it rather than spin.
    int mode = err == SSL_ERROR_WANT_READ ? 1 : 2;
    if (dl_select(conn->sock, mode, timeout) < 1) return write_failed();
  }
  return 0;
}

int write_plain(dl_http_conn *conn, const char *data, int len) {
  int done = 0;
  while (done < len) {
    // MSG_NOSIGNAL: a peer that went away must fail the write, not end the
    // phone's process with SIGPIPE.
    ssize_t n = send(conn->sock, data + done, static_cast<size_t>(len - done), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return write_failed();
    done += static_cast<int>(n);
  }
  return 0;
}

}  // namespace

extern "C" {

DL_EXPORT int http_write(dl_http_conn *conn, const void *data, int len) {
  if (len < 1) return 0;
  if (!quarry::http_conn_live(conn) || data == nullptr) {
    log_error("http write with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  const char *bytes = static_cast<const char *>(data);
  if (conn->flags & DL_HTTP_TLS) return write_tls(conn, bytes, len);
  int ret = write_plain(conn, bytes, len);
  if (ret == 0) quarry::http_expect_reply(conn);
  return ret;
}

DL_EXPORT int http_send_request(dl_http_conn *conn, dl_http_request *req) {
  if (!quarry::http_conn_live(conn) || req == nullptr || req->request_line == nullptr ||
      req->body == nullptr) {
    log_error("http send with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  unsigned trace = dl_config_data_trace_enable();
  size_t head_size = header_size(req);
  const dl_http_body *body = req->body;
  size_t body_size = body->total > 0 ? static_cast<size_t>(body->total) : 0;
  if (head_size + body_size >= kSeparateSendAt) {
    return send_separately(conn, req, head_size, trace);
  }
  return send_gathered(conn, req, head_size, trace);
}

DL_EXPORT void http_trace(const void *data, int len) {
  if (data == nullptr || len < 1) return;
  unsigned mode = dl_config_data_trace_enable();
  int level;
  if (mode == kTraceInfo) {
    level = quarry::kLogInfo;
  } else if (mode == kTraceError) {
    level = quarry::kLogError;
  } else {
    return;
  }
  const char *bytes = static_cast<const char *>(data);
  for (size_t at = 0; at < static_cast<size_t>(len); at += kTracePiece) {
    char piece[kTracePiece + 1] = {};
    size_t n = static_cast<size_t>(len) - at;
    memcpy(piece, bytes + at, n < kTracePiece ? n : kTracePiece);
    libq_log(quarry::kModHttp, level, "%s\n", piece);
  }
}

}  // extern "C"

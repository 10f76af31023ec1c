// Reading a response body: by its length, until the server closes, or
// chunked (RFC 7230 section 4.1), decoded as it streams. A body whose
// framing says more is due when the peer closes is a failure.
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "http/http_conn.h"

namespace {

// Chunk-size lines: a work buffer of 128 growing to 256 bytes, and the
// line itself in 128.
constexpr int kChunkLineStart = 128;
constexpr int kChunkLineMax = 256;
constexpr int kChunkLineRoom = 128;
// Each chunk's data is followed by its CRLF.
constexpr uint32_t kChunkEnd = 2;
constexpr int kDrainPiece = 256;

void log_error(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

int failed(dl_error *err, int code) {
  quarry::set_error(err, code);
  return -1;
}

// The peer closed while the framing still promised bytes: the body is
// cut short, which must not pass for its end.
int cut_short(dl_error *err, const char *text) {
  log_error(text);
  return failed(err, DL_ERR_RECV);
}

int read_by_length(dl_http_conn *conn, char *buf, int len, dl_error *err) {
  if (conn->remaining < static_cast<uint32_t>(len)) {
    len = static_cast<int>(conn->remaining);
    if (len == 0) return 0;
  }
  int got = 0;
  while (got < len) {
    int n = http_recv(conn, buf + got, len - got);
    if (n < 0) {
      log_error("read error\n");
      return failed(err, n);
    }
    if (n == 0) {
      // Without a length the body runs until the close.
      if (conn->flags & DL_HTTP_HAS_LENGTH) return cut_short(err, "read error\n");
      break;
    }
    got += n;
  }
  conn->remaining -= static_cast<uint32_t>(got);
  http_trace(buf, got);
  return got;
}

// Reads exactly |len| bytes into |buf|. Returns 0, or -1 with the code
// in |err| (logged).
int read_exactly(dl_http_conn *conn, char *buf, int len, dl_error *err) {
  int got = 0;
  while (got < len) {
    int n = http_recv(conn, buf + got, len - got);
    if (n < 0) {
      log_error("read chunked error\n");
      return failed(err, n);
    }
    if (n == 0) return cut_short(err, "read chunked error\n");
    got += n;
  }
  return 0;
}

// Reads the next chunk-size line, and after the zero-size chunk the line
// that ends the body. Returns 0, or -1 with the code in |err|.
int next_chunk(dl_http_conn *conn, dl_http_chunk *chunk, dl_error *err) {
  char line[kChunkLineRoom] = {};
  bool complete = false;
  int n = quarry::http_read_line_ended(conn, kChunkLineStart, kChunkLineMax, line, sizeof(line),
                                       &complete);
  if (n < 0) {
    log_error("read chunked len error\n");
    log_error("read chunked error\n");
    return failed(err, n);
  }
  if (!complete) return cut_short(err, "read chunked error\n");
  // Extensions after ';' end the number and are ignored.
  long size = strtol(line, nullptr, 16);
  // Counts handed out are ints.
  if (size < 0 || static_cast<unsigned long>(size) > INT32_MAX - kChunkEnd) {
    libq_log(quarry::kModHttp, quarry::kLogError, "invalid chunk size: %s\n", line);
    log_error("read chunked error\n");
    return failed(err, DL_ERR_RECV);
  }
  if (size > 0) {
    chunk->fill = static_cast<uint32_t>(size);
    return 0;
  }
  chunk->last = 1;
  // Trailers are not supported: one line ends the body.
  n = http_read_line(conn, kChunkLineStart, kChunkLineMax, line, sizeof(line));
  if (n < 0) {
    log_error("read last EOL error\n");
    log_error("read chunked error\n");
    return failed(err, n);
  }
  return 0;
}

// Hands out |len| bytes of the body, fewer only at its end: chunk data
// goes straight into |buf|, however large the server says a chunk is.
int read_chunked(dl_http_conn *conn, char *buf, int len, dl_error *err) {
  if (conn->chunk == nullptr) {
    conn->chunk = static_cast<dl_http_chunk *>(calloc(1, sizeof(dl_http_chunk)));
    if (conn->chunk == nullptr) {
      log_error("Out of memory\n");
      log_error("read chunked error\n");
      return failed(err, DL_ERR_NOMEM);
    }
  }
  dl_http_chunk *chunk = conn->chunk;
  int got = 0;
  while (got < len && !chunk->last) {
    if (chunk->fill == 0) {
      if (next_chunk(conn, chunk, err) != 0) return -1;
      continue;
    }
    uint32_t want = static_cast<uint32_t>(len - got);
    if (want > chunk->fill) want = chunk->fill;
    int n = http_recv(conn, buf + got, static_cast<int>(want));
    if (n < 0) {
      log_error("read chunked error\n");
      return failed(err, n);
    }
    if (n == 0) return cut_short(err, "read chunked error\n");
    got += n;
    chunk->fill -= static_cast<uint32_t>(n);
    if (chunk->fill == 0) {
      // The CRLF after the chunk's data is taken unread, as two bytes.
      char end[kChunkEnd];
      if (read_exactly(conn, end, sizeof(end), err) != 0) return -1;
    }
  }
  if (got > 0) http_trace(buf, got);
  return got;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_http_read(dl_http_conn *conn, void *buf, int len, dl_error *err) {
  if (conn == nullptr || buf == nullptr || err == nullptr || conn->magic != DL_HTTP_MAGIC ||
      conn->sock == 0 || len < 0) {
    log_error("http read with invalid parameter\n");
    return failed(err, DL_ERR_PARAM);
  }
  char *bytes = static_cast<char *>(buf);
  if (conn->flags & DL_HTTP_CHUNKED) return read_chunked(conn, bytes, len, err);
  return read_by_length(conn, bytes, len, err);
}

DL_EXPORT void http_drain(dl_http_conn *conn) {
  if (!quarry::http_conn_live(conn)) {
    log_error("http drain with invalid parameter\n");
    return;
  }
  if (conn->sock != 0) {
    char piece[kDrainPiece];
    dl_error err;
    // dl_http_read traces each piece, so the discarded body still reaches
    // the log when tracing is on.
    while (dl_http_read(conn, piece, sizeof(piece), &err) > 0) {
    }
  }
  if (conn->chunk != nullptr) {
    free(conn->chunk->data);
    free(conn->chunk);
    conn->chunk = nullptr;
  }
}

}  // extern "C"

// Reading a response body: by its length, until the server closes, or
// chunked (RFC 7230 section 4.1) through the handle's de-chunking buffer,
// which keeps decoded bytes and hands them out front-first.
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
constexpr uint32_t kChunkMinCapacity = 512;
// Each chunk's data is followed by its CRLF.
constexpr uint32_t kChunkEnd = 2;
constexpr int kDrainPiece = 256;

void log_error(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

int failed(dl_error *err, int code) {
  quarry::set_error(err, code);
  return -1;
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
    if (n == 0) break;
    got += n;
  }
  conn->remaining -= static_cast<uint32_t>(got);
  http_trace(buf, got);
  return got;
}

int deliver(dl_http_chunk *chunk, char *buf, int len) {
  uint32_t n = static_cast<uint32_t>(len);
  memcpy(buf, chunk->data, n);
  memmove(chunk->data, chunk->data + n, chunk->fill - n);
  chunk->fill -= n;
  http_trace(buf, len);
  return len;
}

// Makes room for |need| more bytes after the decoded ones.
bool make_room(dl_http_chunk *chunk, uint32_t need) {
  uint32_t wanted = chunk->fill + need;
  if (wanted < chunk->capacity) return true;
  uint32_t capacity = chunk->capacity < kChunkMinCapacity ? kChunkMinCapacity : chunk->capacity;
  while (capacity < wanted) capacity *= 2;
  auto *grown = static_cast<uint8_t *>(realloc(chunk->data, capacity));
  if (grown == nullptr) return false;
  memset(grown + chunk->capacity, 0, capacity - chunk->capacity);
  chunk->data = grown;
  chunk->capacity = capacity;
  return true;
}

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
  for (;;) {
    if (chunk->last) {
      if (static_cast<uint32_t>(len) > chunk->fill) len = static_cast<int>(chunk->fill);
      if (chunk->fill == 0) return 0;
    }
    if (static_cast<uint32_t>(len) <= chunk->fill) return deliver(chunk, buf, len);

    char line[kChunkLineRoom] = {};
    int n = http_read_line(conn, kChunkLineStart, kChunkLineMax, line, sizeof(line));
    if (n < 0) {
      log_error("read chunked len error\n");
      log_error("read chunked error\n");
      return failed(err, n);
    }
    // Extensions after ';' end the number and are ignored.
    long size = strtol(line, nullptr, 16);
    // The buffer must stay addressable by the int counts handed out.
    if (size < 0 || static_cast<unsigned long>(size) > INT32_MAX - kChunkEnd - chunk->fill) {
      libq_log(quarry::kModHttp, quarry::kLogError, "invalid chunk size: %s\n", line);
      log_error("read chunked error\n");
      return failed(err, DL_ERR_RECV);
    }
    if (size == 0) {
      chunk->last = 1;
      n = http_read_line(conn, kChunkLineStart, kChunkLineMax, line, sizeof(line));
      if (n < 0) {
        log_error("read last EOL error\n");
        log_error("read chunked error\n");
        return failed(err, n);
      }
      continue;
    }
    uint32_t need = static_cast<uint32_t>(size) + kChunkEnd;
    if (!make_room(chunk, need)) {
      log_error("read chunked error\n");
      return failed(err, DL_ERR_NOMEM);
    }
    uint32_t got = 0;
    while (got < need) {
      int r = http_recv(conn, chunk->data + chunk->fill + got, static_cast<int>(need - got));
      if (r < 0) {
        // A broken chunk ends the body without an error.
        log_error("read chunked error\n");
        return 0;
      }
      if (r == 0) break;
      got += static_cast<uint32_t>(r);
    }
    // The last two bytes are the chunk's CRLF; a chunk cut off before them
    // cannot take more than it brought.
    chunk->fill += got >= kChunkEnd ? got - kChunkEnd : 0;
  }
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

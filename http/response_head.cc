// The head of a response (RFC 7230 section 3): the status line, the header
// block kept in the handle for look-ups, and the body framing it implies.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "core/core.h"
#include "http/http_conn.h"

namespace {

// Status and header lines: a work buffer of 256 growing to 2048 bytes.
constexpr int kLineStart = 256;
constexpr int kLineMax = 2048;
// Room of the lower-cased copy of a looked-up name.
constexpr size_t kNameRoom = 128;

constexpr char kLengthName[] = "content-length";
constexpr char kEncodingName[] = "transfer-encoding";
constexpr char kConnectionName[] = "connection";
// The value of "connection" is read after exactly "connection: ".
constexpr size_t kConnectionValueAt = sizeof("connection: ") - 1;

void log_error(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

// The number after "content-length:", stored as the int it is scanned as.
int32_t scan_length(const char *line) {
  const char *digits = line + sizeof(kLengthName);
  char *end = nullptr;
  long long value = strtoll(digits, &end, 10);
  if (end == digits) return 0;
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

void set_framing(dl_http_conn *conn) {
  conn->flags &= ~static_cast<uint32_t>(DL_HTTP_CHUNKED | DL_HTTP_HAS_LENGTH);
  const char *line = http_find_header(conn->headers, kLengthName);
  if (line != nullptr) {
    conn->flags |= DL_HTTP_HAS_LENGTH;
    int32_t length = scan_length(line);
    conn->remaining = static_cast<uint32_t>(length);
    libq_log(quarry::kModHttp, quarry::kLogError, "Content-Length: %d\n", length);
  } else {
    // Without a length the body runs until the server closes, at most as
    // much as a download may hold.
    conn->remaining = quarry::cfg_read(&dl_config::max_file_size);
  }
  line = http_find_header(conn->headers, kEncodingName);
  if (line != nullptr && strstr(line, "chunked") != nullptr) {
    log_error("Chunked Encoding\n");
    conn->flags |= DL_HTTP_CHUNKED;
  }
  line = http_find_header(conn->headers, kConnectionName);
  if (line != nullptr) {
    const char *value = strlen(line) >= kConnectionValueAt ? line + kConnectionValueAt : "";
    if (strcasecmp(value, "close") == 0) {
      log_error("connection: close\n");
      conn->flags |= DL_HTTP_CLOSE;
    } else if ((conn->flags & DL_HTTP_11) == 0 && strcasecmp(value, "keep-alive") != 0) {
      log_error("connectiong without keep-alive\n");
      conn->flags |= DL_HTTP_CLOSE;
    }
  }
}

}  // namespace

namespace quarry {

int http_read_headers(dl_http_conn *conn, int status, uint32_t *block_size) {
  if (!http_conn_live(conn) || block_size == nullptr) {
    log_error("http read headers with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  libq_log(kModHttp, kLogNotice, "response code: %d\n", status);
  free(conn->headers);
  conn->headers = nullptr;
  conn->headers_len = 0;
  uint32_t size = *block_size < kHeaderBlockStart ? kHeaderBlockStart : *block_size;
  auto *block = static_cast<char *>(calloc(1, size));
  if (block == nullptr) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  conn->headers = block;
  *block_size = size;

  bool trace = dl_config_data_trace_enable() != 0;
  if (trace) log_error("HTTP response header:\n");
  uint32_t used = 0;
  char line[kLineMax];
  for (;;) {
    if (size - used < kHeaderBlockStart && size < kHeaderBlockMax) {
      uint32_t grown_size = size * 2 < kHeaderBlockMax ? size * 2 : kHeaderBlockMax;
      auto *grown = static_cast<char *>(realloc(conn->headers, grown_size));
      if (grown == nullptr) {
        log_error("Out of memory\n");
        return DL_ERR_NOMEM;
      }
      memset(grown + size, 0, grown_size - size);
      conn->headers = grown;
      size = grown_size;
      *block_size = size;
    }
    int n = http_read_line(conn, kLineStart, kLineMax, line, kLineMax);
    if (n < 0) return n;
    if (n == 0) break;
    // The line, its NUL, and the empty string that ends the block.
    if (static_cast<uint32_t>(n) + 2 > size - used) {
      libq_log(kModHttp, kLogError, "Buffer not enough! buffer len %d\n", static_cast<int>(size));
      return DL_ERR_READ;
    }
    char *stored = conn->headers + used;
    memcpy(stored, line, static_cast<size_t>(n) + 1);
    str2lower(stored, static_cast<size_t>(n), ':');
    if (trace) http_trace(stored, n);
    used += static_cast<uint32_t>(n) + 1;
    conn->headers_len = used;
  }
  set_framing(conn);
  return 0;
}

}  // namespace quarry

extern "C" {

DL_EXPORT int http_read_status(dl_http_conn *conn) {
  if (!quarry::http_conn_live(conn)) {
    log_error("http read status with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  char line[kLineMax] = {};
  int n = http_read_line(conn, kLineStart, kLineMax, line, sizeof(line));
  if (n < 0) return n;
  if (dl_config_data_trace_enable() != 0) http_trace(line, static_cast<int>(strlen(line)));
  int minor = 0;
  int status = 0;
  // A negative status would read as one of the library's own codes.
  if (sscanf(line, "HTTP/1.%d %03d", &minor, &status) < 2 || status < 0) {
    libq_log(quarry::kModHttp, quarry::kLogError, "status line error: %s\n", line);
    return DL_ERR_RECV;
  }
  if (minor >= 1) conn->flags |= DL_HTTP_11;
  return status;
}

DL_EXPORT char *http_find_header(char *block, const char *name) {
  if (block == nullptr || name == nullptr) return nullptr;
  size_t len = strlen(name);
  for (char *line = block; *line != '\0'; line += strlen(line) + 1) {
    if (strncmp(line, name, len) == 0 && line[len] == ':') return line;
  }
  return nullptr;
}

DL_EXPORT char *dl_http_find_header_by_name(dl_http_conn *conn, const char *name) {
  if (!quarry::http_conn_live(conn)) {
    log_error("http find header with invalid parameter\n");
    return nullptr;
  }
  if (conn->headers == nullptr || name == nullptr || name[0] == '\0') return nullptr;
  char key[kNameRoom];
  snprintf(key, sizeof(key), "%s", name);
  str2lower(key, sizeof(key), '\0');
  return http_find_header(conn->headers, key);
}

}  // extern "C"

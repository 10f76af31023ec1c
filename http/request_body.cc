// What a request carries after its header block: the caller's text, a file
// sent by PUT, or a file sent by POST either raw or framed as a one-part
// multipart form (RFC 7578) whose boundary the caller declared in its own
// Content-Type line.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "core/core.h"
#include "http/http_conn.h"
#include "util/util.h"

namespace {

// Room of the blocks the body is framed in; longer texts are cut.
constexpr size_t kBoundaryRoom = 512;
constexpr size_t kPreambleRoom = 1024;
constexpr size_t kClosingRoom = 512;
// The raw POST keeps an empty head block of this size.
constexpr size_t kEmptyHeadRoom = 512;

constexpr char kBoundaryKey[] = "boundary=";

using CharPtr = quarry::UniqueMalloc<char>;

void log_error(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

int refuse_combination() {
  log_error("body & post file or without addtion header\n");
  return DL_ERR_PARAM;
}

// Opens the file to send and measures it. The size is taken from the open
// stream so that it is the size of what will be read.
int open_body_file(const char *path, quarry::UniqueFile *file, int32_t *size, int32_t framing) {
  quarry::UniqueFile f(fopen(path, "rb"));
  struct stat st;
  if (f == nullptr || fstat(fileno(f.get()), &st) != 0 || S_ISDIR(st.st_mode)) {
    log_error("Open file for set body fail\n");
    return DL_ERR_PARAM;
  }
  // The total travels as a signed 32-bit Content-Length.
  if (st.st_size < 0 || st.st_size > INT32_MAX - framing) {
    log_error("Open file for set body fail\n");
    return DL_ERR_PARAM;
  }
  *size = static_cast<int32_t>(st.st_size);
  *file = std::move(f);
  return 0;
}

// Bytes snprintf put into a block of |room|, the terminator not counted.
uint32_t written(int ret, size_t room) {
  if (ret < 0) return 0;
  return static_cast<size_t>(ret) < room ? static_cast<uint32_t>(ret)
                                         : static_cast<uint32_t>(room - 1);
}

int set_text_body(dl_http_body *body) {
  size_t len = strlen(body->text);
  if (len > INT32_MAX) {
    log_error("body text too long\n");
    return DL_ERR_PARAM;
  }
  CharPtr head(static_cast<char *>(malloc(len + 1)));
  if (head == nullptr) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  memcpy(head.get(), body->text, len + 1);
  body->head = head.release();
  body->head_len = static_cast<uint32_t>(len);
  body->total = static_cast<int32_t>(len);
  return 0;
}

int set_raw_post(dl_http_body *body, quarry::UniqueFile file, int32_t size) {
  log_error("post file without boundary\n");
  CharPtr head(static_cast<char *>(calloc(1, kEmptyHeadRoom)));
  if (head == nullptr) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  body->head = head.release();
  body->head_len = 0;
  body->file = file.release();
  body->total = size;
  return 0;
}

int set_multipart_post(dl_http_body *body, quarry::UniqueFile file, int32_t size,
                       const char *boundary_at) {
  log_error("post file with boundary\n");
  const char *value = boundary_at + strlen(kBoundaryKey);
  const char *end = strstr(value, "\r\n");
  if (end == nullptr) {
    log_error("header without CRLF\n");
    return DL_ERR_PARAM;
  }
  char boundary[kBoundaryRoom];
  snprintf(boundary, sizeof(boundary), "--%.*s", static_cast<int>(end - value), value);

  const char *slash = strrchr(body->path, '/');
  const char *file_name = slash != nullptr ? slash + 1 : body->path;

  CharPtr head(static_cast<char *>(malloc(kPreambleRoom)));
  CharPtr tail(static_cast<char *>(malloc(kClosingRoom)));
  if (head == nullptr || tail == nullptr) {
    log_error("Out of memory\n");
    return DL_ERR_NOMEM;
  }
  uint32_t head_len = written(snprintf(head.get(), kPreambleRoom,
                                       "%s\r\nContent-Disposition: form-data; name=\"upload\"; "
                                       "filename=\"%s\"\r\nContent-Type: application/"
                                       "octet-stream\r\nContent-Transfer-Encoding: binary\r\n\r\n",
                                       boundary, file_name),
                              kPreambleRoom);
  uint32_t tail_len =
      written(snprintf(tail.get(), kClosingRoom, "\r\n%s--\r\n", boundary), kClosingRoom);

  body->head = head.release();
  body->head_len = head_len;
  body->tail = tail.release();
  body->tail_len = static_cast<int32_t>(tail_len);
  body->file = file.release();
  body->total = static_cast<int32_t>(head_len + tail_len) + size;
  return 0;
}

// Drops what an earlier preparation left, so that preparing twice leaks
// nothing.
void clear_prepared(dl_http_body *body) {
  free(body->head);
  free(body->tail);
  if (body->file != nullptr) fclose(body->file);
  body->head = nullptr;
  body->tail = nullptr;
  body->file = nullptr;
  body->head_len = 0;
  body->tail_len = 0;
  body->total = 0;
}

}  // namespace

extern "C" DL_EXPORT int http_set_body(dl_http_request *req) {
  if (req == nullptr || req->body == nullptr || req->method == nullptr) {
    log_error("http set body with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  dl_http_body *body = req->body;
  clear_prepared(body);
  if (body->text != nullptr && body->path != nullptr) return refuse_combination();
  if (body->text != nullptr) return set_text_body(body);
  if (body->path == nullptr) return 0;
  if (req->extra == nullptr) return refuse_combination();

  bool put = strcmp(req->method, "PUT") == 0;
  // GET and DELETE send no file.
  if (!put && strcmp(req->method, "POST") != 0) return 0;

  const char *boundary_at = put ? nullptr : strstr(req->extra, kBoundaryKey);
  // The multipart preamble and closing line are bounded by their blocks.
  int32_t framing = boundary_at != nullptr ? static_cast<int32_t>(kPreambleRoom + kClosingRoom) : 0;
  quarry::UniqueFile file;
  int32_t size = 0;
  int ret = open_body_file(body->path, &file, &size, framing);
  if (ret != 0) return ret;
  if (put) {
    body->file = file.release();
    body->total = size;
    return 0;
  }
  if (boundary_at == nullptr) return set_raw_post(body, std::move(file), size);
  return set_multipart_post(body, std::move(file), size, boundary_at);
}

// The request record of one exchange: its header list, kept in insertion
// order with replace-in-place, and its request line.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "http/http_conn.h"

namespace {

constexpr int32_t kInitialHeaderRoom = 8;

// "GET", "POST", "PUT", "DELETE" by request type.
constexpr const char *kMethods[] = {"GET", "POST", "PUT", "DELETE"};
constexpr unsigned kMethodCount = sizeof(kMethods) / sizeof(kMethods[0]);

// " HTTP/1.1\r\n" and the blank between method and path, the terminator,
// and one byte to spare, as the line has always been sized.
constexpr size_t kRequestLineExtra = 13;

void free_texts(const char *name, const char *value, int ownership) {
  if (ownership & DL_HDR_OWN_NAME) free(const_cast<char *>(name));
  if (ownership & DL_HDR_OWN_VALUE) free(const_cast<char *>(value));
}

}  // namespace

extern "C" {

DL_EXPORT dl_http_request *http_request_new(void) {
  auto *req = static_cast<dl_http_request *>(calloc(1, sizeof(dl_http_request)));
  if (req == nullptr) return nullptr;
  req->headers = static_cast<dl_http_header *>(calloc(kInitialHeaderRoom, sizeof(dl_http_header)));
  req->body = static_cast<dl_http_body *>(calloc(1, sizeof(dl_http_body)));
  if (req->headers == nullptr || req->body == nullptr) {
    free(req->headers);
    free(req->body);
    free(req);
    return nullptr;
  }
  req->capacity = kInitialHeaderRoom;
  return req;
}

DL_EXPORT void http_request_free(dl_http_request *req) {
  if (req == nullptr) return;
  free(req->request_line);
  if (req->headers != nullptr) {
    for (int32_t i = 0; i < req->count; ++i) {
      const dl_http_header &h = req->headers[i];
      free_texts(h.name, h.value, h.ownership);
    }
    free(req->headers);
  }
  if (req->body != nullptr) {
    free(req->body->head);
    free(req->body->tail);
    if (req->body->file != nullptr) fclose(req->body->file);
    free(req->body);
  }
  free(req);
}

DL_EXPORT int http_set_header(dl_http_request *req, const char *name, const char *value,
                              int ownership) {
  if (req == nullptr || name == nullptr || req->headers == nullptr) {
    libq_log(quarry::kModHttp, quarry::kLogError, "http set header with invalid parameter\n");
    free_texts(name, value, ownership);
    return DL_ERR_PARAM;
  }
  if (value == nullptr) {
    free_texts(name, nullptr, ownership & DL_HDR_OWN_NAME);
    return 0;
  }
  for (int32_t i = 0; i < req->count; ++i) {
    dl_http_header &h = req->headers[i];
    if (strcmp(h.name, name) == 0) {
      free_texts(h.name, h.value, h.ownership);
      h = dl_http_header{name, value, ownership};
      return 0;
    }
  }
  if (req->count >= req->capacity) {
    size_t room = static_cast<size_t>(req->capacity) * 2;
    dl_http_header *grown = nullptr;
    if (room > 0 && room <= INT32_MAX) {
      grown = static_cast<dl_http_header *>(realloc(req->headers, room * sizeof(dl_http_header)));
    }
    if (grown == nullptr) {
      free_texts(name, value, ownership);
      return DL_ERR_NOMEM;
    }
    req->headers = grown;
    req->capacity = static_cast<int32_t>(room);
  }
  req->headers[req->count++] = dl_http_header{name, value, ownership};
  return 0;
}

DL_EXPORT int http_set_request_line(dl_http_request *req, int type, const char *path) {
  if (req == nullptr || path == nullptr) {
    libq_log(quarry::kModHttp, quarry::kLogError, "http set request line with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  if (static_cast<unsigned>(type) >= kMethodCount) return DL_ERR_URL;
  const char *method = kMethods[type];
  size_t room = strlen(method) + strlen(path) + kRequestLineExtra;
  auto *line = static_cast<char *>(malloc(room));
  if (line == nullptr) return DL_ERR_NOMEM;
  snprintf(line, room, "%s %s HTTP/1.1\r\n", method, path);
  free(req->request_line);
  req->request_line = line;
  req->method = method;
  libq_log(quarry::kModHttp, quarry::kLogError, "Request Line: %s", line);
  return 0;
}

}  // extern "C"

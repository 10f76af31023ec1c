// Turning the caller's parameters into a request: the URL check, then the
// request line and the standard headers in their wire order, the body and
// its Content-Length.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "http/http_conn.h"
#include "util/util.h"

namespace {

// Room added to the host's length for brackets, colon, port and NUL.
constexpr size_t kHostExtra = 32;
// Room of the User-Agent copy and of the Content-Length text.
constexpr size_t kUserAgentRoom = 512;
constexpr size_t kLengthRoom = 512;

using CharPtr = quarry::UniqueMalloc<char>;

void log_make_error() { libq_log(quarry::kModHttp, quarry::kLogError, "make request error\n"); }

bool mentions(const char *extra, const char *name) {
  return extra != nullptr && strstr(extra, name) != nullptr;
}

// Sets "Authorization: Basic ..." from the URL's credentials. Anything
// that goes wrong leaves the header out without a word.
void set_preemptive_basic(dl_http_request *req, const dl_url *url) {
  libq_log(quarry::kModHttp, quarry::kLogError, "set basic auth header\n");
  const char *user = url->user != nullptr ? url->user : "";
  const char *password = url->password != nullptr ? url->password : "";
  size_t room = strlen(user) + strlen(password) + 2;
  CharPtr joined(static_cast<char *>(malloc(room)));
  if (joined == nullptr) return;
  snprintf(joined.get(), room, "%s:%s", user, password);
  char *encoded = nullptr;
  size_t encoded_len = Curl_base64_encode(joined.get(), strlen(joined.get()), &encoded);
  CharPtr encoded_owner(encoded);
  if (encoded_len == 0 || encoded == nullptr || encoded[0] == '\0') return;
  size_t value_room = strlen("Basic ") + strlen(encoded) + 1;
  auto *value = static_cast<char *>(malloc(value_room));
  if (value == nullptr) return;
  snprintf(value, value_room, "Basic %s", encoded);
  http_set_header(req, "Authorization", value, DL_HDR_OWN_VALUE);
}

}  // namespace

namespace quarry {

// Sets "Host" for |url|: the host alone on the scheme's default port
// (bracketed when IPv6), else with ":port". Returns 0, DL_ERR_NOMEM when
// the text could not be made, or the set's code.
int http_set_host(dl_http_request *req, const dl_url *url) {
  bool default_port = url->port == scheme_default_port(url->scheme);
  if (default_port && !url->is_ipv6) {
    libq_log(kModHttp, kLogError, "Host: %s\n", url->host);
    return http_set_header(req, "Host", url->host, DL_HDR_OWN_NONE);
  }
  size_t room = strlen(url->host) + kHostExtra;
  auto *value = static_cast<char *>(malloc(room));
  if (value == nullptr) return DL_ERR_NOMEM;
  if (default_port) {
    snprintf(value, room, "[%s]", url->host);
  } else if (url->is_ipv6) {
    snprintf(value, room, "[%s]:%d", url->host, url->port);
  } else {
    snprintf(value, room, "%s:%d", url->host, url->port);
  }
  libq_log(kModHttp, kLogError, "Host: %s\n", value);
  return http_set_header(req, "Host", value, DL_HDR_OWN_VALUE);
}

}  // namespace quarry

extern "C" {

DL_EXPORT int http_make_request(uint32_t flags, dl_http_request *req, const char *extra,
                                const char *body, const dl_url *url) {
  if (req == nullptr || req->body == nullptr || url == nullptr || url->host == nullptr ||
      url->path == nullptr || url->scheme > DL_URL_SCHEME_HTTPS) {
    libq_log(quarry::kModHttp, quarry::kLogError, "http make request with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  int ret = http_set_request_line(req, static_cast<int>(url->request_type), url->path);
  if (ret != 0) {
    log_make_error();
    return ret;
  }
  ret = quarry::http_set_host(req, url);
  if (ret != 0) {
    log_make_error();
    // Without the Host text the request goes out as far as it got.
    return ret == DL_ERR_NOMEM ? 0 : ret;
  }

  auto *agent = static_cast<char *>(malloc(kUserAgentRoom));
  if (agent == nullptr) {
    log_make_error();
    return 0;
  }
  quarry::cfg_read_text(&dl_config::user_agent, agent, kUserAgentRoom);
  libq_log(quarry::kModHttp, quarry::kLogError, "User-Agent: %s\n", agent);
  ret = http_set_header(req, "User-Agent", agent, DL_HDR_OWN_VALUE);
  if (ret != 0) {
    log_make_error();
    return ret;
  }

  if (!mentions(extra, "Accept:")) {
    ret = http_set_header(req, "Accept", "*/*", DL_HDR_OWN_NONE);
    if (ret != 0) {
      log_make_error();
      return ret;
    }
  }
  // Plain HTTP asks to keep the connection; HTTPS requests never say.
  if ((flags & DL_HTTP_TLS) == 0) {
    ret = http_set_header(req, "Connection", "Keep-Alive", DL_HDR_OWN_NONE);
    if (ret != 0) {
      log_make_error();
      return ret;
    }
  }
  if (req->mode == DL_EX_BASIC_AUTH) set_preemptive_basic(req, url);

  req->extra = extra;
  req->body->text = body;
  ret = http_set_body(req);
  if (ret != 0) return ret;

  const dl_http_body *b = req->body;
  if ((b->head != nullptr || b->file != nullptr) && !mentions(extra, "Content-Length")) {
    auto *length = static_cast<char *>(malloc(kLengthRoom));
    if (length == nullptr) {
      log_make_error();
      return DL_ERR_NOMEM;
    }
    snprintf(length, kLengthRoom, "%d", b->total);
    libq_log(quarry::kModHttp, quarry::kLogError, "Content-Length: %s\n", length);
    ret = http_set_header(req, "Content-Length", length, DL_HDR_OWN_VALUE);
    if (ret != 0) {
      log_make_error();
      return ret;
    }
  }
  return 0;
}

DL_EXPORT dl_url *http_url_check(uint32_t *flags, const dl_http_param *param, dl_error *error) {
  if (flags == nullptr || param == nullptr) {
    libq_log(quarry::kModHttp, quarry::kLogError, "http url check with invalid parameter\n");
    quarry::set_error(error, DL_ERR_PARAM);
    return nullptr;
  }
  dl_url *url = dl_url_parse(param->url, param->user, param->password,
                             error != nullptr ? &error->code : nullptr);
  if (url == nullptr) return nullptr;
  if (url->scheme != DL_URL_SCHEME_HTTP && url->scheme != DL_URL_SCHEME_HTTPS) {
    dl_url_free(url);
    return nullptr;
  }
  if (url->scheme == DL_URL_SCHEME_HTTPS) *flags |= DL_HTTP_TLS;
  url->request_type = static_cast<uint32_t>(param->type);
  return url;
}

}  // extern "C"

// The response state machine of an open: follows 301/302 redirects,
// answers 401 challenges, and leaves the handle at the final body.
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "core/core.h"
#include "http/http_conn.h"
#include "http/open_flow.h"

namespace {

constexpr int kStatusOk = 200;
constexpr int kStatusFirstRedirect = 301;
constexpr int kStatusFound = 302;
constexpr int kStatusUnauthorized = 401;
constexpr size_t kRedirectRoom = 512;
// "location: " ahead of the value in a lower-cased header line.
constexpr size_t kLocationPrefix = sizeof("location: ") - 1;
// Data-trace mode that also logs the header block of each response.
constexpr unsigned kTraceHeaders = 2;

// What a followed redirect tells the machine to do next.
constexpr int kRedirectFollowed = 0;
constexpr int kRedirectStopped = 1;

struct Limits {
  int max_redirects;
  int auth_limit;
};

Limits read_limits() {
  quarry::CfgLock lock;
  return Limits{static_cast<int>(g_dl_cfg.max_redirects),
                static_cast<int>(g_dl_cfg.auth_retry_limit)};
}

bool has_text(const char *s) { return s != nullptr && s[0] != '\0'; }

// strdup that keeps a null text null. |ok| turns false when memory ran out.
char *copy_or_null(const char *s, bool *ok) {
  if (s == nullptr) return nullptr;
  char *copy = strdup(s);
  if (copy == nullptr) *ok = false;
  return copy;
}

// Replaces the URL record in |url_slot| by |location|, keeping the
// request type and credentials of the old one.
int replace_url(dl_url **url_slot, const char *location) {
  dl_url *old = *url_slot;
  const uint32_t type = old->request_type;
  bool ok = true;
  std::unique_ptr<char, decltype(&free)> user(copy_or_null(old->user, &ok), &free);
  std::unique_ptr<char, decltype(&free)> password(copy_or_null(old->password, &ok), &free);
  if (!ok) return DL_ERR_NOMEM;
  dl_url_free(old);
  *url_slot = dl_url_parse(location, user.get(), password.get(), nullptr);
  if (*url_slot == nullptr) return DL_ERR_REDIRECT_URL;
  (*url_slot)->request_type = type;
  return 0;
}

// Sends the request again for the new URL: on a fresh connection, or on
// the proxy connection once the redirect body is gone.
int resend(dl_http_conn *conn, const dl_url *url, const dl_url *proxy_url, dl_http_request *req) {
  if (proxy_url == nullptr) {
    http_reset(conn);
    if (url->scheme == DL_URL_SCHEME_HTTPS) conn->flags |= DL_HTTP_TLS;
    if (http_connect(conn, url->host, url->port, nullptr) != 0) {
      quarry::http_log_error("Connect Error\n");
      return DL_ERR_CONNECT;
    }
  } else {
    http_drain(conn);
  }
  int ret = http_send_request(conn, req);
  if (ret != 0) {
    quarry::http_log_error("Request Send Error\n");
    return ret;
  }
  return 0;
}

// One 301 or 302: kRedirectFollowed once the new request is out,
// kRedirectStopped when the mode forbids following, or a negative code.
int follow_redirect(dl_http_conn *conn, dl_url **url_slot, const dl_url *proxy_url,
                    dl_http_request *req, char *redirect_out) {
  const char *line = http_find_header(conn->headers, "location");
  if (line == nullptr) {
    quarry::http_log_error("Can't find location header\n");
    return DL_ERR_REDIRECT;
  }
  libq_log(quarry::kModHttp, quarry::kLogNotice, "redirect to new url\n");
  const char *value = strlen(line) > kLocationPrefix ? line + kLocationPrefix : "";
  snprintf(redirect_out, kRedirectRoom, "%s", value);
  if (req->mode == DL_EX_NO_TRY_REDIRECT) {
    libq_log(quarry::kModHttp, quarry::kLogNotice,
             "special type DL_EX_NO_TRY_REDIRECT!stop try redirect url\n");
    libq_log(quarry::kModHttp, quarry::kLogNotice, "Stop handle response!\n");
    return kRedirectStopped;
  }
  int ret = replace_url(url_slot, value);
  if (ret != 0) return ret;
  const dl_url *url = *url_slot;
  ret = quarry::http_set_host(req, url);
  if (ret != 0) {
    quarry::http_log_error("Reset Host Header Error\n");
    return ret;
  }
  ret = http_set_request_line(req, static_cast<int>(url->request_type), url->path);
  if (ret != 0) {
    quarry::http_log_error("Reset First Line Error\n");
    return ret;
  }
  return resend(conn, url, proxy_url, req);
}

// One 401: 0 once answered, or the code to leave with.
int answer_challenge(dl_http_conn *conn, dl_url *url, dl_http_request *req, int attempts,
                     int limit) {
  const bool multi = req->mode == DL_EX_MULTI_AUTH;
  const int pairs = multi ? req->creds_count : 0;
  bool give_up = dl_http_auth_info_is_empty(url, req) != 0;
  if (!give_up) give_up = multi ? attempts >= pairs : attempts >= limit;
  if (give_up) {
    libq_log(quarry::kModHttp, quarry::kLogError,
             "auth err, req type:%d, 4xx times:%d, limit itmes:%d, wparam:%d\n", req->mode,
             attempts, limit + 1, pairs);
    return DL_ERR_AUTH;
  }
  return http_auth_retry(conn, conn->headers, url, req);
}

void trace_headers(const dl_http_conn *conn) {
  if (dl_config_data_trace_enable() != kTraceHeaders || conn->headers == nullptr) return;
  uint32_t at = 0;
  while (at < conn->headers_len) {
    const char *line = conn->headers + at;
    libq_log(quarry::kModHttp, quarry::kLogError, "%s\n", line);
    at += static_cast<uint32_t>(strlen(line)) + 1;
  }
}

int leave(dl_http_conn *conn, int result) {
  trace_headers(conn);
  free(conn->headers);
  conn->headers = nullptr;
  conn->headers_len = 0;
  return result;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_http_auth_info_is_empty(const dl_url *url, dl_http_request *req) {
  if (url == nullptr || req == nullptr) return -1;
  if (req->mode == DL_EX_MULTI_AUTH) {
    if (req->creds == nullptr || req->creds_next < 0 || req->creds_next >= req->creds_count) {
      return 1;
    }
    const dl_http_cred &pair = req->creds[req->creds_next++];
    return has_text(pair.user) || has_text(pair.password) ? 0 : 1;
  }
  return has_text(url->user) || has_text(url->password) ? 0 : 1;
}

DL_EXPORT int http_handle_response(dl_http_conn *conn, dl_url **url_slot, const dl_url *proxy_url,
                                   dl_http_request *req, char *redirect_out) {
  if (!quarry::http_conn_live(conn) || url_slot == nullptr || *url_slot == nullptr ||
      req == nullptr || redirect_out == nullptr) {
    quarry::http_log_error("http handle response with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  const Limits limits = read_limits();
  int redirects = 0;
  int attempts = 0;
  uint32_t block_size = quarry::kHeaderBlockStart;
  for (;;) {
    const int status = http_read_status(conn);
    if (status < 0) return status;
    int ret = quarry::http_read_headers(conn, status, &block_size);
    if (ret < 0) return leave(conn, ret);
    if (status == kStatusOk) return 0;
    if (status == kStatusFirstRedirect || status == kStatusFound) {
      if (redirects >= limits.max_redirects) return leave(conn, DL_ERR_REDIRECT);
      ret = follow_redirect(conn, url_slot, proxy_url, req, redirect_out);
      if (ret == kRedirectStopped) return 0;
      if (ret != kRedirectFollowed) return leave(conn, ret);
      ++redirects;
      continue;
    }
    if (status != kStatusUnauthorized) return leave(conn, status);
    if (req->mode == DL_EX_NO_TRY_AUTH) {
      libq_log(quarry::kModHttp, quarry::kLogNotice, "http no try auth\n");
      return kStatusUnauthorized;
    }
    ret = answer_challenge(conn, *url_slot, req, attempts, limits.auth_limit);
    if (ret != 0) return leave(conn, ret);
    ++attempts;
  }
}

}  // extern "C"

// Answering one 401: the challenge is parsed, the authorization built,
// and the request sent again on the same connection when its body can be
// skipped, on a new one otherwise.
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "http/auth.h"
#include "http/http_conn.h"
#include "http/open_flow.h"

namespace {

// "www-authenticate: " ahead of the challenge in a lower-cased line.
constexpr size_t kChallengePrefix = sizeof("www-authenticate: ") - 1;

// Everything one answer owns, released whatever way it ends.
class AuthScope {
 public:
  AuthScope() { memset(&state_, 0, sizeof(state_)); }
  ~AuthScope() {
    Curl_digest_cleanup_one(&state_.digest);
    free(state_.header);
    free(state_.proxy_header);
  }
  AuthScope(const AuthScope &) = delete;
  AuthScope &operator=(const AuthScope &) = delete;
  dl_http_auth *get() { return &state_; }
  dl_http_auth *operator->() { return &state_; }

 private:
  dl_http_auth state_;
};

// Gives up the answer: the connection is not usable any more.
int give_up(dl_http_conn *conn, const char *text) {
  quarry::http_log_error(text);
  http_reset(conn);
  return DL_ERR_AUTH;
}

// Sets "Authorization" from the built line "Authorization: value\r\n".
int set_authorization(dl_http_request *req, const char *built) {
  const char *space = strchr(built, ' ');
  if (space == nullptr) return DL_ERR_NOMEM;
  const char *end = strstr(space + 1, "\r\n");
  if (end == nullptr) return DL_ERR_FAIL;
  char *value = strndup(space + 1, static_cast<size_t>(end - (space + 1)));
  if (value == nullptr) return DL_ERR_NOMEM;
  return http_set_header(req, "Authorization", value, DL_HDR_OWN_VALUE);
}

// The pair that answers: the next one of the list, or the URL's own.
void pick_credentials(dl_http_auth *state, const dl_url *url, dl_http_request *req) {
  if (req->mode != DL_EX_MULTI_AUTH) {
    state->user = url->user;
    state->password = url->password;
    return;
  }
  if (req->creds != nullptr && req->creds_next >= 0 && req->creds_next < req->creds_count) {
    const dl_http_cred &pair = req->creds[req->creds_next++];
    state->user = pair.user;
    state->password = pair.password;
  }
}

bool body_has_known_end(const dl_http_conn *conn) {
  return (conn->flags & DL_HTTP_CLOSE) == 0 &&
         (conn->flags & (DL_HTTP_CHUNKED | DL_HTTP_HAS_LENGTH)) != 0;
}

}  // namespace

extern "C" {

DL_EXPORT int http_auth_retry(dl_http_conn *conn, char *headers, dl_url *url,
                              dl_http_request *req) {
  if (!quarry::http_conn_live(conn) || url == nullptr || req == nullptr) {
    quarry::http_log_error("http auth retry with invalid parameter\n");
    return DL_ERR_PARAM;
  }
  const char *line = headers != nullptr ? http_find_header(headers, "www-authenticate") : nullptr;
  // Nothing to answer: the next response is waited for as it comes.
  if (line == nullptr) return 0;
  const char *challenge = strlen(line) > kChallengePrefix ? line + kChallengePrefix : "";
  AuthScope state;
  if (Curl_input_auth(state.get(), 0, challenge) != DL_AUTH_FINE) {
    return give_up(conn, "Input Auth Error\n");
  }
  pick_credentials(state.get(), url, req);
  if (req->mode == DL_EX_XSI_AUTH) {
    if (Curl_output_xsi_auth(state.get()) != 0) {
      return give_up(conn, "Output SIP XSI Auth Error\n");
    }
  } else if (Curl_output_auth(state.get(), 0, req->method, url->path) != 0) {
    return give_up(conn, "Output Auth Error\n");
  }
  libq_log(quarry::kModHttp, quarry::kLogError, "http auth type: %d,\n",
           static_cast<int>(state->pick.picked));

  bool send_failed = false;
  if (body_has_known_end(conn)) {
    libq_log(quarry::kModHttp, quarry::kLogError, "Cleaning cache\n");
    http_drain(conn);
    if (state->header == nullptr) return 0;
    int ret = set_authorization(req, state->header);
    if (ret != 0) return ret;
    if (http_send_request(conn, req) == 0) return 0;
    send_failed = true;
  }

  http_reset(conn);
  if (url->scheme == DL_URL_SCHEME_HTTPS) conn->flags |= DL_HTTP_TLS;
  libq_log(quarry::kModHttp, quarry::kLogInfo, "Reconnect %s:%d\n", url->host, url->port);
  if (http_connect(conn, url->host, url->port, nullptr) != 0) {
    quarry::http_log_error("Connect Error\n");
    return DL_ERR_CONNECT;
  }
  if (state->header == nullptr) {
    return send_failed ? http_send_request(conn, req) : 0;
  }
  int ret = set_authorization(req, state->header);
  if (ret != 0) return ret;
  return http_send_request(conn, req);
}

}  // extern "C"

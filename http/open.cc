// Opening an HTTP exchange: the handle, the connection (directly or to a
// proxy), the request, and the response handling; plus closing a handle.
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "core/core.h"
#include "http/http_conn.h"
#include "http/open_flow.h"
#include "url/url.h"

namespace {

constexpr int kStatusNotModified = 304;
constexpr int kStatusClientError = 400;
constexpr int kStatusUnauthorized = 401;


struct RequestFree {
  void operator()(dl_http_request *r) const { http_request_free(r); }
};
using RequestPtr = std::unique_ptr<dl_http_request, RequestFree>;

void log_bad_open() { quarry::http_log_error("http open with invalid parameter\n"); }

// Fills |err| with |code| and its text, then gives the handle up.
dl_http_conn *fail(dl_http_conn *conn, dl_error *err, int code) {
  err->code = code;
  quarry::http_exchange_fail(conn, err);
  return nullptr;
}

// Sends the request of |param| on the connected |conn|.
int build_and_send(dl_http_conn *conn, uint32_t flags, dl_http_request *req,
                   const dl_http_param *param, const dl_url *url, bool log_send) {
  if (http_make_request(flags, req, param->headers, param->body, url) < 0) return DL_ERR_SEND;
  if (log_send) libq_log(quarry::kModHttp, quarry::kLogInfo, "send request\n");
  if (http_send_request(conn, req) != 0) return DL_ERR_SEND;
  return 0;
}

// Common end of both opens: maps the machine's result to success (with
// the status the caller is to see) or failure.
int finish_open(dl_http_conn *conn, int result, bool report_not_modified, bool auth_ok,
                dl_http_conn **conn_out, dl_error *err) {
  int code = 0;
  if (result < 0) {
    libq_log(quarry::kModHttp, quarry::kLogError, "handler response error, ret = %d\n", result);
    code = result;
  } else if (result == kStatusUnauthorized && auth_ok) {
    err->code = kStatusUnauthorized;
  } else if (result >= kStatusClientError) {
    libq_log(quarry::kModHttp, quarry::kLogError, "Client error, ret = %d\n", result);
    code = result;
  } else if (result == kStatusNotModified && report_not_modified) {
    libq_log(quarry::kModHttp, quarry::kLogError, "Client error, same data. code: %d\n", result);
    code = result;
  }
  if (code != 0) {
    fail(conn, err, code);
    return -1;
  }
  *conn_out = conn;
  return 0;
}

int open_with(dl_http_conn **conn_out, const dl_http_param *param, int32_t mode, char *redirect_out,
              dl_error *err, bool report_not_modified) {
  *conn_out = nullptr;
  quarry::ExchangeSetup setup;
  setup.mode = mode;
  int result = 0;
  dl_http_conn *conn = quarry::http_exchange(param, setup, redirect_out, err, &result);
  if (conn == nullptr) return -1;
  return finish_open(conn, result, report_not_modified, mode == DL_EX_NO_TRY_AUTH, conn_out, err);
}

}  // namespace

namespace quarry {

void http_log_error(const char *text) { libq_log(kModHttp, kLogError, "%s", text); }

void http_exchange_fail(dl_http_conn *conn, dl_error *err) {
  quarry::set_error(err, err->code);
  if (conn == nullptr) return;
  if (dl_config_data_trace_enable() != 0 && conn->sock != 0) http_drain(conn);
  http_reset(conn);
  conn->magic = 0;
  free(conn);
}

dl_http_conn *http_exchange(const dl_http_param *param, const ExchangeSetup &setup,
                            char *redirect_out, dl_error *err, int *result) {
  memset(err, 0, sizeof(*err));
  auto *conn = static_cast<dl_http_conn *>(calloc(1, sizeof(dl_http_conn)));
  if (conn == nullptr) {
    http_log_error("Out of Memory\n");
    return fail(nullptr, err, DL_ERR_NOMEM);
  }
  conn->magic = DL_HTTP_MAGIC;
  if (g_dl_cfg.initialised == 0) {
    http_log_error("config doesn't init\n");
    return fail(conn, err, DL_ERR_NO_CONFIG);
  }
  RequestPtr req(http_request_new());
  if (req == nullptr) {
    http_log_error("Out of memory\n");
    return fail(conn, err, DL_ERR_NOMEM);
  }
  req->mode = setup.mode;
  req->body->path = setup.file_path;
  if (setup.creds != nullptr) {
    if (setup.creds_count < 1) {
      http_log_error("auth info count nonpositive\n");
      return fail(conn, err, DL_ERR_PARAM);
    }
    constexpr int64_t kPairBytes = 8;
    int64_t bytes = static_cast<int64_t>(setup.creds_count) * kPairBytes;
    req->mode = DL_EX_MULTI_AUTH;
    req->creds = setup.creds;
    req->creds_count = setup.creds_count;
    req->creds_bytes = bytes > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bytes);
    req->creds_next = 0;
  }

  quarry::UniqueUrl url(http_url_check(&conn->flags, param, err));
  if (url == nullptr) return fail(conn, err, err->code);
  const uint32_t request_flags = conn->flags;
  quarry::UniqueUrl proxy;
  if (param->proxy != nullptr && param->proxy[0] != '\0') {
    int code = 0;
    proxy.reset(dl_url_parse(param->proxy, nullptr, nullptr, &code));
    if (proxy == nullptr) return fail(conn, err, code != 0 ? code : DL_ERR_URL);
  }
  const dl_url *target = proxy != nullptr ? proxy.get() : url.get();
  int ret = http_connect(conn, target->host, target->port, proxy.get());
  if (ret != 0) {
    http_log_error("Connect Error\n");
    return fail(conn, err, ret);
  }
  // The proxy is spoken to in plain text: no session is looked for.
  if (proxy != nullptr) conn->flags &= ~static_cast<uint32_t>(DL_HTTP_TLS);

  ret = build_and_send(conn, request_flags, req.get(), param, url.get(), setup.log_send);
  if (ret != 0) return fail(conn, err, ret);

  libq_log(kModHttp, kLogInfo, "process response\n");
  dl_url *slot = url.release();
  *result = http_handle_response(conn, &slot, proxy.get(), req.get(), redirect_out);
  url.reset(slot);
  libq_log(kModHttp, kLogNotice, "response process finish!\n");
  return conn;
}

}  // namespace quarry

extern "C" {

DL_EXPORT int dl_http_open(dl_http_conn **conn_out, const dl_http_param *param, char *redirect_out,
                           dl_error *err) {
  if (err == nullptr || param == nullptr || conn_out == nullptr || param->url == nullptr ||
      redirect_out == nullptr) {
    log_bad_open();
    quarry::set_error(err, DL_ERR_PARAM);
    return -1;
  }
  return open_with(conn_out, param, DL_EX_NONE, redirect_out, err, true);
}

DL_EXPORT int dl_http_open_ex(dl_http_conn **conn_out, const dl_http_param_ex *param_ex,
                              char *redirect_out, dl_error *err) {
  if (err == nullptr || param_ex == nullptr || param_ex->param == nullptr || conn_out == nullptr ||
      param_ex->param->url == nullptr || redirect_out == nullptr) {
    log_bad_open();
    quarry::set_error(err, DL_ERR_PARAM);
    return -1;
  }
  return open_with(conn_out, param_ex->param, param_ex->mode, redirect_out, err, false);
}

DL_EXPORT void dl_http_close(dl_http_conn *conn) {
  if (!quarry::http_conn_live(conn)) return;
  http_reset(conn);
  conn->magic = 0;
  free(conn);
}

}  // extern "C"

// Sending a local file by POST or PUT, and a POST whose challenges are
// answered from a list of credentials.
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "http/http_conn.h"
#include "http/open_flow.h"

namespace {

constexpr int kStatusClientError = 400;

// What dl_http_post_file hands back on success: the handle itself is gone
// by then, so the caller gets this dead one (magic 0, ignored by
// dl_http_close) as the mark of success rather than a dangling address.
dl_http_conn g_released_handle = {};

void bad_post(dl_error *err) {
  quarry::http_log_error("http post file with invalid parameter\n");
  quarry::set_error(err, DL_ERR_PARAM);
}

// Both entry points: checks the arguments every post needs, with
// |own_args_ok| for the entry point's own and |put_allowed| where PUT may
// stand for POST, then runs the exchange and maps the machine's result:
// the live handle on success, or nullptr once it was given up with the
// code in |err|.
dl_http_conn *post(dl_http_conn **conn_out, const dl_http_param *param, bool own_args_ok,
                   bool put_allowed, const quarry::ExchangeSetup &setup, char *redirect_out,
                   dl_error *err) {
  if (err == nullptr || param == nullptr || conn_out == nullptr || param->url == nullptr ||
      !own_args_ok || redirect_out == nullptr ||
      (param->type != DL_HTTP_POST && !(put_allowed && param->type == DL_HTTP_PUT))) {
    bad_post(err);
    return nullptr;
  }
  *conn_out = nullptr;
  int result = 0;
  dl_http_conn *conn = quarry::http_exchange(param, setup, redirect_out, err, &result);
  if (conn == nullptr) return nullptr;
  if (result < 0) {
    quarry::http_log_error("handler response error\n");
    err->code = result;
  } else if (result >= kStatusClientError) {
    quarry::http_log_error("Client error\n");
    err->code = result;
  } else {
    return conn;
  }
  quarry::http_exchange_fail(conn, err);
  return nullptr;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_http_post_file(dl_http_conn **conn_out, const dl_http_param *param,
                                const char *path, char *redirect_out, dl_error *err) {
  quarry::ExchangeSetup setup;
  setup.file_path = path;
  setup.log_send = true;
  dl_http_conn *conn =
      post(conn_out, param, path != nullptr, /*put_allowed=*/true, setup, redirect_out, err);
  if (conn == nullptr) return -1;
  dl_http_close(conn);
  *conn_out = &g_released_handle;
  return 0;
}

DL_EXPORT int dl_http_post_multi_auth(dl_http_conn **conn_out, const dl_http_param *param,
                                      const dl_http_cred *creds, int count, char *redirect_out,
                                      dl_error *err) {
  quarry::ExchangeSetup setup;
  setup.creds = creds;
  setup.creds_count = count;
  dl_http_conn *conn = post(conn_out, param, /*own_args_ok=*/true, /*put_allowed=*/false, setup,
                             redirect_out, err);
  if (conn == nullptr) return -1;
  *conn_out = conn;
  return 0;
}

}  // extern "C"

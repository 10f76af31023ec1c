// http/ open flow: the exchange every open and post function shares, from
// the handle's allocation to the end of the response handling, and the
// common way a failed exchange gives its handle up.
#ifndef QUARRY_HTTP_OPEN_FLOW_H
#define QUARRY_HTTP_OPEN_FLOW_H

#include <stdint.h>

#include "http/http_conn.h"

namespace quarry {

// What distinguishes one caller's exchange from another's.
struct ExchangeSetup {
  int32_t mode = DL_EX_NONE;
  const char *file_path = nullptr;  // body file of a post, borrowed
  const dl_http_cred *creds = nullptr;
  int32_t creds_count = 0;
  bool log_send = false;  // log "send request" before sending
};

// Zeroes |err|, then allocates a handle, connects (through the param's
// proxy when set), sends the request of |param| and runs the response
// state machine. Returns the live handle with the machine's result in
// |*result|, or nullptr after a failure, with the code and its text in
// |err| and everything released. The request and URL records never
// outlive the call.
dl_http_conn *http_exchange(const dl_http_param *param, const ExchangeSetup &setup,
                            char *redirect_out, dl_error *err, int *result);

// Gives up a handle after a failed exchange: writes the text of |err|'s
// code, lets the rest of the body reach the trace when tracing is on, and
// resets and frees the handle.
void http_exchange_fail(dl_http_conn *conn, dl_error *err);

// Logs one line of the HTTP module at error level.
void http_log_error(const char *text);

}  // namespace quarry

#endif  // QUARRY_HTTP_OPEN_FLOW_H

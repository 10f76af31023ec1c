// Helpers shared by the authentication builders: base64 of a text, header
// slot replacement and picking the origin or proxy side.
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "http/auth.h"

namespace quarry {

char *auth_base64(const char *src) {
  char *out = nullptr;
  size_t len = Curl_base64_encode(src, strlen(src), &out);
  if (len == 0) {
    // An empty input may still come back as an allocated empty string.
    free(out);
    return nullptr;
  }
  return out;
}

void auth_set_line(char **slot, char *line) {
  free(*slot);
  *slot = line;
}

void auth_log_bad_param(const char *function) {
  libq_log(kModHttp, kLogError, "%s param invalid\n", function);
}

AuthSide auth_side(dl_http_auth *state, int proxy) {
  AuthSide side;
  if (proxy != 0) {
    side.user = state->proxy_user;
    side.password = state->proxy_password;
    side.digest = &state->proxy_digest;
    side.pick = &state->proxy_pick;
    side.header = &state->proxy_header;
  } else {
    side.user = state->user;
    side.password = state->password;
    side.digest = &state->digest;
    side.pick = &state->pick;
    side.header = &state->header;
  }
  // Absent credentials are answered as empty text.
  if (side.user == nullptr) side.user = "";
  if (side.password == nullptr) side.password = "";
  return side;
}

}  // namespace quarry

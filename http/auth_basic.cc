// The Basic answer (RFC 2617 section 2) and the choice between Basic and
// Digest for a built authorization line.
#include <stdio.h>

#include "core/core.h"
#include "http/auth.h"

namespace {

// The user:password text is cut to this size before it is encoded.
constexpr size_t kBasicCredentialsRoom = 512;

int output_basic(const quarry::AuthSide &side, int proxy) {
  char credentials[kBasicCredentialsRoom];
  snprintf(credentials, sizeof credentials, "%s:%s", side.user, side.password);
  quarry::UniqueMalloc<char> encoded(quarry::auth_base64(credentials));
  if (!encoded) return quarry::kAuthBuildNoMem;
  char *line =
      curl_maprintf("%sAuthorization: Basic %s\r\n", proxy != 0 ? "Proxy-" : "", encoded.get());
  if (line == nullptr) return quarry::kAuthBuildNoMem;
  quarry::auth_set_line(side.header, line);
  return quarry::kAuthBuildOk;
}

}  // namespace

extern "C" {

DL_EXPORT int Curl_output_auth(dl_http_auth *state, int proxy, const char *method,
                               const char *uri) {
  if (state == nullptr) {
    quarry::auth_log_bad_param("Curl_output_auth");
    return quarry::kAuthBuildUnhandled;
  }
  const quarry::AuthSide side = quarry::auth_side(state, proxy);
  if ((side.pick->picked & quarry::kAuthPickBasic) != 0) return output_basic(side, proxy);
  if ((side.pick->picked & quarry::kAuthPickDigest) != 0) {
    return Curl_output_digest(state, proxy, method, uri);
  }
  return quarry::kAuthBuildUnhandled;
}

}  // extern "C"

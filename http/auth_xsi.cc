// The BroadWorksSIP answer of the BroadWorks XSI service: the password and
// the SIP user, each base64-encoded, in place of a Basic answer.
#include "core/core.h"
#include "http/auth.h"

extern "C" {

DL_EXPORT int Curl_output_xsi_auth(dl_http_auth *state) {
  if (state == nullptr) {
    quarry::auth_log_bad_param("Curl_output_xsi_auth");
    return quarry::kAuthBuildUnhandled;
  }
  const quarry::AuthSide side = quarry::auth_side(state, 0);
  if ((side.pick->picked & quarry::kAuthPickBasic) == 0) return quarry::kAuthBuildUnhandled;
  quarry::UniqueMalloc<char> password(quarry::auth_base64(side.password));
  if (!password) return quarry::kAuthBuildNoMem;
  quarry::UniqueMalloc<char> user(quarry::auth_base64(side.user));
  if (!user) return quarry::kAuthBuildNoMem;
  char *line = curl_maprintf("Authorization: BroadWorksSIP basic=\"%s\", sipUser=\"%s\"\r\n",
                             password.get(), user.get());
  if (line == nullptr) return quarry::kAuthBuildNoMem;
  quarry::auth_set_line(side.header, line);
  return quarry::kAuthBuildOk;
}

}  // extern "C"

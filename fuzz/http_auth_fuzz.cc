// libFuzzer target for the authentication challenge parser: each line of
// the input is one www-authenticate (or proxy-authenticate) value handed
// to Curl_input_auth, as a server may send several; then the answer is
// built for whatever scheme was picked, as the open flow would.
//
// Input: byte 0 bit 0 picks the proxy side, bit 1 the XSI answer; the
// rest is the challenge lines.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "http/auth.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace {

constexpr size_t kMaxInput = 16384;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  const int proxy = data[0] & 1;
  const bool xsi = (data[0] & 2u) != 0;
  std::string text(reinterpret_cast<const char *>(data + 1), size - 1);

  dl_http_auth state;
  memset(&state, 0, sizeof(state));
  state.user = "user";
  state.password = "secret";
  state.proxy_user = "puser";
  state.proxy_password = "psecret";
  size_t at = 0;
  while (at <= text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    // An exactly sized heap copy, so that reading past the value shows.
    std::string line = text.substr(at, end - at);
    char *value = static_cast<char *>(malloc(line.size() + 1));
    memcpy(value, line.c_str(), line.size() + 1);
    Curl_input_auth(&state, proxy, value);
    free(value);
    at = end + 1;
  }
  if (xsi) {
    Curl_output_xsi_auth(&state);
  } else {
    Curl_output_auth(&state, proxy, "GET", "/dir/file.txt?x=1");
  }
  Curl_digest_cleanup_one(&state.digest);
  Curl_digest_cleanup_one(&state.proxy_digest);
  free(state.header);
  free(state.proxy_header);
  return 0;
}

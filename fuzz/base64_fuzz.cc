// libFuzzer target for the base64 decoders: the input, as text, goes to
// both the standard and the URL-safe decoder; what decodes is encoded
// again and must decode to the same bytes.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"

namespace {

constexpr size_t kMaxInput = 65536;

void round_trip(const unsigned char *bytes, size_t len) {
  if (len == 0) return;
  char *encoded = nullptr;
  size_t n = Curl_base64_encode(bytes, len, &encoded);
  if (n == 0 || encoded == nullptr) {
    free(encoded);
    return;
  }
  unsigned char *again = nullptr;
  size_t m = Curl_base64_decode(encoded, &again);
  if (m != len || again == nullptr || memcmp(again, bytes, len) != 0) abort();
  free(again);
  free(encoded);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxInput) return 0;
  // The decoders take zero-terminated text; an embedded zero just ends it.
  std::string text(reinterpret_cast<const char *>(data), size);

  unsigned char *out = nullptr;
  size_t n = Curl_base64_decode(text.c_str(), &out);
  if ((n == 0) != (out == nullptr)) abort();
  round_trip(out, n);
  free(out);

  out = nullptr;
  n = Curl_base64url_decode(text.c_str(), &out);
  if ((n == 0) != (out == nullptr)) abort();
  free(out);
  return 0;
}

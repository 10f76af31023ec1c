// libFuzzer target for the URL parsers: the first byte picks the IPv6
// setting, the rest is the URL handed to url_split (and url_rebuild when it
// split), dl_url_parse and url_remove_special_char.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"

namespace {

void free_parts(dl_url_parts *parts) {
  free(parts->host);
  free(parts->path);
  free(parts->user);
  free(parts->password);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  // Nothing the parsers log is of interest here; keep the runs fast.
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  uint32_t ipv6 = data[0] & 1u;
  dl_set_option(DL_OPT_IPV6_ENABLE, &ipv6);
  // The parsers take zero-terminated text; an embedded zero just ends it.
  std::string url(reinterpret_cast<const char *>(data + 1), size - 1);

  dl_url_parts parts;
  if (url_split(url.c_str(), &parts) == 0) {
    char user[] = "user";
    dl_request request = {&url[0], user, nullptr, nullptr};
    dl_http_param out{};
    if (url_rebuild(&request, &out, &parts) == 0) free(out.url);
  }
  free_parts(&parts);

  int err = 0;
  dl_url_free(dl_url_parse(url.c_str(), "u", "p", &err));

  std::string cleaned(url.size() + 1, '\0');
  url_remove_special_char(&cleaned[0], cleaned.size(), url.c_str());
  return 0;
}

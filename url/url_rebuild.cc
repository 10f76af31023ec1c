// Turns split transfer parts back into a URL without login information,
// with the credentials beside it, for the HTTP client.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "url/url.h"

namespace {

// ":65535" and room to spare for any int.
constexpr size_t kPortTextRoom = 16;
// A bracketed host needs "[" and "]" beyond the host itself.
constexpr size_t kBracketRoom = 2;

}  // namespace

extern "C" {

DL_EXPORT int url_rebuild(const dl_request *request, dl_http_param *out,
                          const dl_url_parts *parts) {
  if (request == nullptr || request->url == nullptr || out == nullptr || parts == nullptr ||
      parts->host == nullptr || parts->path == nullptr || parts->scheme >= DL_SCHEME_NONE) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
    return -1;
  }
  const quarry::SchemeRow &row = quarry::url_scheme_tab[parts->scheme];
  char port_text[kPortTextRoom] = "";
  if (parts->port != row.port) snprintf(port_text, sizeof(port_text), ":%d", parts->port);

  bool bracketed = strchr(request->url, '[') != nullptr && strchr(request->url, ']') != nullptr;
  size_t size = strlen(row.prefix) + strlen(parts->host) + strlen(port_text) +
                strlen(parts->path) + 1 + (bracketed ? kBracketRoom : 0);
  char *url = static_cast<char *>(calloc(size, 1));
  if (url == nullptr) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Memory Exhualt!\n");
    return -1;
  }
  if (bracketed) {
    snprintf(url, size, "%s[%s]%s%s", row.prefix, parts->host, port_text, parts->path);
  } else {
    snprintf(url, size, "%s%s%s%s", row.prefix, parts->host, port_text, parts->path);
  }
  libq_log(quarry::kModCommon, quarry::kLogInfo, "URL After Modify = %s\n", url);

  out->url = url;
  out->user = parts->user != nullptr ? parts->user : request->user;
  out->password = parts->password != nullptr ? parts->password : request->password;
  out->proxy = request->proxy;
  return 0;
}

}  // extern "C"

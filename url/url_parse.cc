// The HTTP client's URL parser (RFC 3986 section 3 for http and https
// only): host, port and path of a request or redirect URL, spaces written
// as "%20", credentials carried along.
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string_view>

#include "core/core.h"
#include "url/url.h"
#include "util/util.h"

namespace {

using quarry::kLogError;
using quarry::kModCommon;

constexpr char kEscapedSpace[] = "%20";
constexpr size_t kEscapeGrowth = sizeof(kEscapedSpace) - 2;

using quarry::UniqueUrl;

// The URL text with every space written as "%20", or null when memory runs
// out.
char *escape_spaces(std::string_view text) {
  size_t spaces = 0;
  for (char c : text) spaces += c == ' ' ? 1 : 0;
  char *escaped = static_cast<char *>(malloc(text.size() + kEscapeGrowth * spaces + 1));
  if (escaped == nullptr) return nullptr;
  char *dst = escaped;
  for (char c : text) {
    if (c == ' ') {
      memcpy(dst, kEscapedSpace, sizeof(kEscapedSpace) - 1);
      dst += sizeof(kEscapedSpace) - 1;
    } else {
      *dst++ = c;
    }
  }
  *dst = '\0';
  return escaped;
}

int scheme_of(std::string_view text) {
  for (int row = 0; quarry::http_scheme_tab[row].prefix != nullptr; ++row) {
    if (quarry::has_prefix_nocase(text, quarry::http_scheme_tab[row].prefix)) return row;
  }
  return -1;
}

dl_url *parse(const char *url, const char *user, const char *password, int *code) {
  *code = DL_ERR_URL;
  if (url == nullptr || url[0] == '\0') {
    libq_log(kModCommon, kLogError, "Invalid URL\n");
    return nullptr;
  }
  size_t size = strlen(url) + 1;
  quarry::UniqueMalloc<char> cleaned(static_cast<char *>(calloc(size, 1)));
  if (!cleaned) {
    libq_log(kModCommon, kLogError, "malloc error\n");
    *code = DL_ERR_NOMEM;
    return nullptr;
  }
  url_remove_special_char(cleaned.get(), size, url);
  std::string_view text(cleaned.get());

  int scheme = scheme_of(text);
  if (scheme < 0) {
    libq_log(kModCommon, kLogError, "Invalid URL\n");
    return nullptr;
  }
  quarry::UniqueMalloc<char> escaped(escape_spaces(text));
  if (!escaped) {
    libq_log(kModCommon, kLogError, "malloc error\n");
    *code = DL_ERR_NOMEM;
    return nullptr;
  }
  std::string_view rest(escaped.get());
  // An upper-case "HTTP://" is accepted but its prefix stays in place, so
  // such a URL reaches the host "HTTP"; callers have lived with this.
  const char *prefix = quarry::http_scheme_tab[scheme].prefix;
  if (scheme == DL_URL_SCHEME_HTTPS || text.find(prefix) != std::string_view::npos) {
    rest.remove_prefix(strlen(prefix));
  }

  std::string_view host;
  uint32_t is_ipv6 = 0;
  if (!rest.empty() && rest.front() == '[') {
    size_t close = rest.find(']');
    if (close == std::string_view::npos) {
      libq_log(kModCommon, kLogError, "Invalid Host\n");
      return nullptr;
    }
    if (quarry::cfg_read(&dl_config::ipv6_enable) == 0) {
      libq_log(kModCommon, kLogError, "can't use ipv6 when ipv6 is diable\n");
      *code = DL_ERR_IPV6_DISABLED;
      return nullptr;
    }
    is_ipv6 = 1;
    host = rest.substr(1, close - 1);
    rest.remove_prefix(close + 1);
  } else {
    host = rest.substr(0, rest.find_first_of("/:?#"));
    rest.remove_prefix(host.size());
  }
  if (host.empty()) {
    libq_log(kModCommon, kLogError, "Invalid Host\n");
    return nullptr;
  }

  int port = quarry::http_scheme_tab[scheme].port;
  if (!rest.empty() && rest.front() == ':') {
    rest.remove_prefix(1);
    std::string_view port_text = rest.substr(0, rest.find('/'));
    rest.remove_prefix(port_text.size());
    // "host:" with nothing after the colon keeps the default port.
    if (!port_text.empty() && !quarry::parse_port(port_text, &port)) {
      libq_log(kModCommon, kLogError, "BAD_PORT_NUMBER\n");
      return nullptr;
    }
  }
  if (!rest.empty() && rest.front() != '/') {
    libq_log(kModCommon, kLogError, "Bad file name\n");
    return nullptr;
  }

  UniqueUrl record(static_cast<dl_url *>(calloc(1, sizeof(dl_url))));
  if (!record) {
    libq_log(kModCommon, kLogError, "malloc error\n");
    *code = DL_ERR_NOMEM;
    return nullptr;
  }
  record->scheme = static_cast<uint32_t>(scheme);
  record->is_ipv6 = is_ipv6;
  record->port = port;
  record->host = quarry::copy_text(host);
  record->path = quarry::copy_text(rest.empty() ? "/" : rest);
  if (user != nullptr) record->user = quarry::copy_text(user);
  if (password != nullptr) record->password = quarry::copy_text(password);
  if (record->host == nullptr || record->path == nullptr ||
      (user != nullptr && record->user == nullptr) ||
      (password != nullptr && record->password == nullptr)) {
    libq_log(kModCommon, kLogError, "malloc error\n");
    *code = DL_ERR_NOMEM;
    return nullptr;
  }
  *code = 0;
  return record.release();
}

}  // namespace

extern "C" {

DL_EXPORT dl_url *dl_url_parse(const char *url, const char *user, const char *password,
                               int *err) {
  int code = 0;
  dl_url *parsed = parse(url, user, password, &code);
  if (err != nullptr) *err = code;
  return parsed;
}

DL_EXPORT void dl_url_free(dl_url *u) {
  if (u == nullptr) return;
  free(u->host);
  free(u->path);
  free(u->password);
  free(u->user);
  free(u);
}

}  // extern "C"

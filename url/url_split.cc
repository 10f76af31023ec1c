// The transfer parser: splits a URL of any of the four transfer schemes
// into scheme, login, host, port and path (RFC 3986 section 3, loosely: a
// URL without a scheme is a TFTP one, and a user must come with a
// password).
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include "core/core.h"
#include "url/url.h"
#include "util/util.h"

namespace {

using quarry::kLogError;
using quarry::kLogInfo;
using quarry::kModCommon;

constexpr std::string_view kSchemeSeparator = "://";

// |text| from |pos| on, at most |n| bytes, clamped to the text: substr
// without the out-of-range throw, which needs the C++ runtime the library
// does without.
constexpr std::string_view part(std::string_view text, size_t pos,
                                size_t n = std::string_view::npos) {
  if (pos > text.size()) pos = text.size();
  size_t left = text.size() - pos;
  return std::string_view(text.data() + pos, n < left ? n : left);
}

// Reads the scheme and returns the text after it through |rest|.
bool split_scheme(std::string_view text, dl_url_parts *parts, std::string_view *rest) {
  if (text.find(kSchemeSeparator) == std::string_view::npos) {
    // A bare "host/path" has always meant a TFTP server.
    parts->scheme = DL_SCHEME_TFTP;
    *rest = text;
    return true;
  }
  for (unsigned row = 0; quarry::url_scheme_tab[row].prefix != nullptr; ++row) {
    if (quarry::has_prefix_nocase(text, quarry::url_scheme_tab[row].prefix)) {
      parts->scheme = row;
      *rest = part(text, text.find(kSchemeSeparator) + kSchemeSeparator.size());
      return true;
    }
  }
  parts->scheme = DL_SCHEME_NONE;
  libq_log(kModCommon, kLogError, "Protocol Not Support!\n");
  return false;
}

// Takes "user:password@" off |authority| and returns what follows it.
bool split_login(std::string_view authority, dl_url_parts *parts, std::string_view *host_part) {
  size_t at = authority.rfind('@');
  if (at == std::string_view::npos) {
    *host_part = authority;
    return true;
  }
  std::string_view login = part(authority, 0, at);
  if (quarry::only_blanks(login)) {
    libq_log(kModCommon, kLogError, "Login Info Invalid!\n");
    return false;
  }
  login = quarry::skip_blanks(login);
  size_t colon = login.find(':');
  if (colon == std::string_view::npos) return false;
  parts->user = quarry::copy_text(part(login, 0, colon));
  parts->password = quarry::copy_text(part(login, colon + 1));
  if (parts->user == nullptr || parts->password == nullptr) {
    libq_log(kModCommon, kLogError, "Malloc err\n");
    return false;
  }
  *host_part = part(authority, at + 1);
  return true;
}

// Reads host and port from |host_part|.
bool split_host_port(std::string_view host_part, dl_url_parts *parts) {
  if (quarry::only_blanks(host_part)) {
    libq_log(kModCommon, kLogError, "Host Info Invalid!\n");
    return false;
  }
  host_part = quarry::skip_blanks(host_part);

  std::string_view host;
  size_t separator;
  size_t open = host_part.find('[');
  if (open != std::string_view::npos) {
    size_t close = host_part.find(']', open + 1);
    if (close == std::string_view::npos) return false;
    if (quarry::cfg_read(&dl_config::ipv6_enable) == 0) return false;
    host = part(host_part, open + 1, close - open - 1);
    // Whatever stands between "]" and the ":" is ignored.
    separator = host_part.find(':', close + 1);
  } else {
    separator = host_part.find(':');
    host = part(host_part, 0, separator);
  }
  if (host.empty()) return false;
  parts->host = quarry::copy_text(host);
  if (parts->host == nullptr) {
    libq_log(kModCommon, kLogError, "Malloc err\n");
    return false;
  }

  parts->port = quarry::url_scheme_tab[parts->scheme].port;
  if (separator == std::string_view::npos) return true;
  std::string_view port_text = part(host_part, separator + 1);
  if (quarry::only_blanks(port_text)) {
    libq_log(kModCommon, kLogError, "Host Info Invalid!\n");
    return false;
  }
  int port = 0;
  if (!quarry::parse_port(quarry::skip_blanks(port_text), &port)) return false;
  parts->port = port;
  return true;
}

int split(const char *url, dl_url_parts *parts) {
  if (url == nullptr || url[0] == '\0') {
    libq_log(kModCommon, kLogError, "Invalid URL\n");
    return -1;
  }
  size_t size = strlen(url) + 1;
  quarry::UniqueMalloc<char> text(static_cast<char *>(calloc(size, 1)));
  if (!text) {
    libq_log(kModCommon, kLogError, "Malloc err\n");
    return -1;
  }
  url_remove_special_char(text.get(), size, url);
  libq_log(kModCommon, kLogInfo, "Enter Func %s....\n", "dl_url_parse");

  std::string_view rest;
  if (!split_scheme(text.get(), parts, &rest)) return -1;
  if (quarry::only_blanks(rest)) {
    libq_log(kModCommon, kLogError, "URL Invalid!\n");
    return -1;
  }
  rest = quarry::skip_blanks(rest);
  libq_log(kModCommon, kLogInfo, "Skip Space Success!\n");

  size_t slash = rest.find('/');
  std::string_view authority = part(rest, 0, slash);
  std::string_view host_part;
  if (!split_login(authority, parts, &host_part) || !split_host_port(host_part, parts)) {
    libq_log(kModCommon, kLogError, "Login_Host_Port Info Parsing Fail!\n");
    return -1;
  }
  parts->path = quarry::copy_text(slash == std::string_view::npos ? "/" : part(rest, slash));
  if (parts->path == nullptr) {
    libq_log(kModCommon, kLogError, "Malloc err\n");
    return -1;
  }
  return 0;
}

}  // namespace

extern "C" {

DL_EXPORT int url_split(const char *url, dl_url_parts *parts) {
  if (parts == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Param!\n");
    return -1;
  }
  // Zeroed before anything else so that the caller may free the parts
  // after every failure, even the earliest.
  *parts = dl_url_parts{};
  return split(url, parts);
}

}  // extern "C"

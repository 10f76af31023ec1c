// Scheme tables, the cleaning of raw URL text, and the small scanners both
// parsers use.
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "core/core.h"
#include "url/url.h"

namespace quarry {

const SchemeRow url_scheme_tab[] = {
    {"https", "https://", 443},
    {"http", "http://", 80},
    {"tftp", "tftp://", 69},
    {"ftp", "ftp://", 21},
    {nullptr, nullptr, -1},
};

const SchemeRow http_scheme_tab[] = {
    {"http", "http://", 80},
    {"https", "https://", 443},
    {nullptr, nullptr, -1},
};

namespace {

constexpr unsigned kHttpSchemeEndRow = 2;
constexpr int kPortLimit = 65536;
constexpr int kDecimalBase = 10;

}  // namespace

bool is_blank(char c) { return c == '\t' || c == '\n' || c == '\r' || c == ' '; }

bool only_blanks(std::string_view text) {
  for (char c : text) {
    if (!is_blank(c)) return false;
  }
  return true;
}

std::string_view skip_blanks(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  return text;
}

bool has_prefix_nocase(std::string_view text, const char *prefix) {
  size_t len = strlen(prefix);
  return text.size() >= len && strncasecmp(text.data(), prefix, len) == 0;
}

bool parse_port(std::string_view text, int *port) {
  if (text.empty()) return false;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * kDecimalBase + (c - '0');
    if (value >= kPortLimit) return false;
  }
  *port = value;
  return true;
}

char *copy_text(std::string_view text) {
  char *copy = static_cast<char *>(malloc(text.size() + 1));
  if (copy == nullptr) return nullptr;
  if (!text.empty()) memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

}  // namespace quarry

extern "C" {

DL_EXPORT void url_remove_special_char(char *dst, size_t dst_size, const char *src) {
  if (src == nullptr || dst == nullptr) return;
  size_t src_len = strlen(src);
  if (dst_size <= src_len) return;
  while (*src == ' ') ++src;
  size_t n = 0;
  for (; *src != '\0'; ++src) {
    if (*src == '\t' || *src == '\n' || *src == '\r') continue;
    dst[n++] = *src;
  }
  while (n > 0 && dst[n - 1] == ' ') --n;
  dst[n] = '\0';
}

DL_EXPORT int scheme_default_port(unsigned index) {
  // Indexes past the end row would read beyond the table; they get the end
  // row's answer.
  if (index > quarry::kHttpSchemeEndRow) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
    return quarry::http_scheme_tab[quarry::kHttpSchemeEndRow].port;
  }
  return quarry::http_scheme_tab[index].port;
}

}  // extern "C"

// url/: the two URL parsers. url_split (with url_rebuild) serves the
// transfer front door and knows https, http, tftp and ftp; dl_url_parse
// serves the HTTP client and knows http and https only. Both clean their
// input with url_remove_special_char. The C entry points are declared in
// quarry.h and quarry_internal.h; this header holds what the parsers share.
#ifndef QUARRY_URL_URL_H
#define QUARRY_URL_URL_H

#include <memory>
#include <string_view>

#include "quarry.h"

namespace quarry {

// Owns a dl_url from dl_url_parse; released with dl_url_free.
struct UrlFree {
  void operator()(dl_url *u) const noexcept { dl_url_free(u); }
};
using UniqueUrl = std::unique_ptr<dl_url, UrlFree>;

struct SchemeRow {
  const char *name;
  const char *prefix;  // null in the end row
  int port;            // -1 in the end row
};

// Transfer schemes; the row number is the DL_SCHEME_* code, the end row is
// DL_SCHEME_NONE.
extern const SchemeRow url_scheme_tab[];
// HTTP schemes of dl_url_parse; the row number is the DL_URL_SCHEME_*
// code. The order differs from url_scheme_tab on purpose.
extern const SchemeRow http_scheme_tab[];

// TAB, LF, CR or space.
bool is_blank(char c);
// Whether |text| is empty or holds only blanks.
bool only_blanks(std::string_view text);
std::string_view skip_blanks(std::string_view text);

// Whether |text| begins with |prefix|, letters compared without case.
bool has_prefix_nocase(std::string_view text, const char *prefix);

// Reads a port of decimal digits only, below 65536. Returns false for an
// empty text, any other character or a value too large.
bool parse_port(std::string_view text, int *port);

// A heap copy of |text|, or null when memory runs out.
char *copy_text(std::string_view text);

}  // namespace quarry

#endif  // QUARRY_URL_URL_H

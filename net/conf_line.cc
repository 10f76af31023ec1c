// Line reading shared by the resolver and hosts file parsers.
#include <string.h>

#include "net/dns_context.h"

namespace quarry {

namespace {
// fgets keeps one byte for the terminator and the format one more spare:
// lines of at most 1022 characters.
constexpr int kConfLineRead = static_cast<int>(kConfLineRoom) - 1;
}  // namespace

bool conf_next_line(FILE *file, char *buf) {
  if (fgets(buf, kConfLineRead, file) == nullptr) return false;
  // The last character goes whatever it is: the files have always been read
  // so. A line that starts with a zero byte has none to drop.
  size_t len = strlen(buf);
  if (len > 0) buf[len - 1] = '\0';
  return true;
}

}  // namespace quarry

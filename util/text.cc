// Small string helpers shared by the parsers and the ring-tone code.
#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include "core/core.h"

extern "C" {

DL_EXPORT char *strdupdelim(const char *begin, const char *end) {
  if (begin == nullptr || end == nullptr || end < begin) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
    return nullptr;
  }
  size_t len = static_cast<size_t>(end - begin);
  char *copy = static_cast<char *>(malloc(len + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, begin, len);
  copy[len] = '\0';
  return copy;
}

DL_EXPORT void str2lower(char *s, size_t n, int stop) {
  if (s == nullptr) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
    return;
  }
  for (size_t i = 0; i < n && s[i] != '\0'; ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == static_cast<unsigned char>(stop)) break;
    s[i] = static_cast<char>(tolower(c));
  }
}

DL_EXPORT int isfromdialpad(const char *s) {
  if (s == nullptr) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
    return 0;
  }
  for (; *s != '\0'; ++s) {
    bool digit = *s >= '0' && *s <= '9';
    if (!digit && *s != '*' && *s != '#') return 0;
  }
  return 1;
}

}  // extern "C"

// The curl_m*printf family: the HTTP authentication code and its helpers
// were written against these names. They forward to libc's printf family,
// whose conversions they promise.
#include <stdarg.h>
#include <stdio.h>

#include "core/core.h"

namespace {

bool refuse(bool bad) {
  if (bad) libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
  return bad;
}

}  // namespace

extern "C" {

DL_EXPORT int curl_mvsnprintf(char *buffer, size_t maxlength, const char *format, va_list args) {
  // A zero-sized buffer may be null: the caller only wants the length.
  if (refuse(format == nullptr || (buffer == nullptr && maxlength != 0))) return -1;
  return vsnprintf(buffer, maxlength, format, args);
}

DL_EXPORT int curl_msnprintf(char *buffer, size_t maxlength, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = curl_mvsnprintf(buffer, maxlength, format, args);
  va_end(args);
  return n;
}

DL_EXPORT char *curl_mvaprintf(const char *format, va_list args) {
  if (refuse(format == nullptr)) return nullptr;
  char *text = nullptr;
  if (vasprintf(&text, format, args) < 0) return nullptr;
  return text;
}

DL_EXPORT char *curl_maprintf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *text = curl_mvaprintf(format, args);
  va_end(args);
  return text;
}

DL_EXPORT int curl_mvsprintf(char *buffer, const char *format, va_list args) {
  if (refuse(buffer == nullptr || format == nullptr)) return -1;
  return vsprintf(buffer, format, args);
}

DL_EXPORT int curl_msprintf(char *buffer, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = curl_mvsprintf(buffer, format, args);
  va_end(args);
  return n;
}

DL_EXPORT int curl_mvfprintf(FILE *fd, const char *format, va_list args) {
  if (refuse(fd == nullptr || format == nullptr)) return -1;
  return vfprintf(fd, format, args);
}

DL_EXPORT int curl_mfprintf(FILE *fd, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = curl_mvfprintf(fd, format, args);
  va_end(args);
  return n;
}

DL_EXPORT int curl_mvprintf(const char *format, va_list args) {
  return curl_mvfprintf(stdout, format, args);
}

DL_EXPORT int curl_mprintf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = curl_mvfprintf(stdout, format, args);
  va_end(args);
  return n;
}

}  // extern "C"

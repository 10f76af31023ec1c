/* A program with a curl_mvsnprintf of its own (as one with libcurl linked
 * in statically would have) must not capture libquarry's calls to that
 * name: the library binds its own calls inside itself. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "quarry.h"
#include "quarry_internal.h"

static int own_calls = 0;

/* Visible to the dynamic linker, as an interposing definition would be. */
__attribute__((visibility("default"))) int curl_mvsnprintf(char *buffer, size_t maxlength,
                                                           const char *format, va_list args) {
  (void)buffer;
  (void)maxlength;
  (void)format;
  (void)args;
  ++own_calls;
  return 4242;
}

static int call_own(const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = curl_mvsnprintf(NULL, 0, format, args);
  va_end(args);
  return n;
}

int main(void) {
  char buf[16] = "";
  int failures = 0;
  /* libquarry's curl_msnprintf forwards to libquarry's curl_mvsnprintf. */
  if (curl_msnprintf(buf, sizeof(buf), "%s-%d", "abc", 7) != 5 || strcmp(buf, "abc-7") != 0) {
    fprintf(stderr, "libquarry's curl_msnprintf gave \"%s\"\n", buf);
    ++failures;
  }
  if (own_calls != 0) {
    fprintf(stderr, "libquarry's call reached the program's curl_mvsnprintf\n");
    ++failures;
  }
  /* The program's own calls do reach its own definition. */
  if (call_own("x") != 4242 || own_calls != 1) {
    fprintf(stderr, "the program's curl_mvsnprintf was not used\n");
    ++failures;
  }
  printf("%s\n", failures == 0 ? "ok" : "FAILED");
  return failures == 0 ? 0 : 1;
}

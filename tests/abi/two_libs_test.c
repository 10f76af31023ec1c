/* libquarry and libcurl in one program. Both export the curl_m*printf
 * family; each library's own calls must reach its own code, whichever of
 * the two the program was linked against first. check_bindings.cmake runs
 * this program and also checks the dynamic linker's bindings. */
#define _GNU_SOURCE
#include <curl/curl.h>
#include <curl/mprintf.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "quarry.h"

typedef int (*snprintf_fn)(char *, size_t, const char *, ...);

static int failures = 0;

#define CHECK(cond)                                                          \
  do {                                                                       \
    if (!(cond)) {                                                           \
      ++failures;                                                            \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                                        \
  } while (0)

static const char *object_of(const void *address) {
  Dl_info info;
  if (dladdr(address, &info) == 0 || info.dli_fname == NULL) return "";
  return info.dli_fname;
}

/* The library's own definition of |name| (its dependencies come after it
 * in a handle's search, so the library itself answers first). */
static void *own_symbol(const char *soname, const char *name) {
  void *handle = dlopen(soname, RTLD_NOW | RTLD_NOLOAD);
  void *symbol = handle != NULL ? dlsym(handle, name) : NULL;
  if (handle != NULL) dlclose(handle);
  return symbol;
}

int main(void) {
  char buf[128];
  char expected[128];
  snprintf_fn ours = (snprintf_fn)own_symbol(QUARRY_SONAME, "curl_msnprintf");
  snprintf_fn theirs = (snprintf_fn)own_symbol("libcurl.so.4", "curl_msnprintf");
  CHECK(ours != NULL && theirs != NULL && ours != theirs);
  if (ours == NULL || theirs == NULL) return 1;
  CHECK(strstr(object_of((void *)ours), "libquarry.so") != NULL);
  CHECK(strstr(object_of((void *)theirs), "libcurl.so") != NULL);
  /* Every name of libquarry sits under its one version node. */
  CHECK(dlvsym(RTLD_DEFAULT, "curl_msnprintf", QUARRY_VERSION_NODE) == (void *)ours);
  CHECK(dlvsym(RTLD_DEFAULT, "dl_get_version", QUARRY_VERSION_NODE) != NULL);

  /* libquarry's curl_msnprintf calls its curl_mvsnprintf, which formats
   * with libc: "%m" is errno's text. libcurl's formatter knows no "%m". */
  snprintf(expected, sizeof(expected), "[%s]", strerror(ENOENT));
  errno = ENOENT;
  CHECK(ours(buf, sizeof(buf), "[%m]") > 0 && strcmp(buf, expected) == 0);
  errno = ENOENT;
  theirs(buf, sizeof(buf), "[%m]");
  CHECK(strcmp(buf, "[]") == 0);
  /* Only libquarry's curl_mvsnprintf refuses a missing buffer. */
  CHECK(ours(NULL, 4, "x") == -1);

  /* Both libraries at work: libcurl's URL API builds its text with its
   * curl_maprintf, libquarry's Basic authorization with its own. */
  CURLU *u = curl_url();
  char *text = NULL;
  CHECK(u != NULL && curl_url_set(u, CURLUPART_URL, "http://phone.invalid:8080/a b",
                                  CURLU_URLENCODE) == CURLUE_OK);
  CHECK(curl_url_get(u, CURLUPART_URL, &text, 0) == CURLUE_OK && text != NULL &&
        strcmp(text, "http://phone.invalid:8080/a%20b") == 0);
  curl_free(text);
  curl_url_cleanup(u);
  int32_t ring = 0;
  char path[64];
  CHECK(dl_distinctive_ringtone_download(NULL, "Bellcore-dr4", &ring, path, sizeof(path)) == 1);
  CHECK(ring == 4);

  printf("the program's own curl_msnprintf calls go to %s\n", object_of((void *)&curl_msnprintf));
  printf("%s\n", failures == 0 ? "ok" : "FAILED");
  return failures == 0 ? 0 : 1;
}

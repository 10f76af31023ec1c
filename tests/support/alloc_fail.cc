// The wrapped malloc family behind alloc_fail.h. The linker sends every
// reference to malloc (and the rest) to __wrap_malloc and makes
// __real_malloc the real one, so no symbol lookup is needed at run time
// and the sanitizers' allocators stay underneath.
#include "tests/support/alloc_fail.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *p, size_t size);
char *__real_strdup(const char *s);
char *__real_strndup(const char *s, size_t n);
int __real_vasprintf(char **out, const char *fmt, va_list ap);
}

namespace {

thread_local bool t_armed = false;
thread_local long t_fail_at = 0;
thread_local long t_count = 0;
thread_local bool t_fired = false;

// Whether this call is the one to fail.
bool fail_now() {
  if (!t_armed) return false;
  if (++t_count != t_fail_at) return false;
  t_fired = true;
  errno = ENOMEM;
  return true;
}

// OpenSSL's allocations go through the same counter, so that the
// certificate functions, which allocate almost only through OpenSSL, are
// covered too. free() of OpenSSL's is libc's, so blocks allocated before
// the hook was installed are released alike.
void *crypto_malloc(size_t size, const char *, int) {
  return fail_now() ? nullptr : __real_malloc(size);
}

void *crypto_realloc(void *p, size_t size, const char *, int) {
  if (size == 0) {
    free(p);
    return nullptr;
  }
  return fail_now() ? nullptr : __real_realloc(p, size);
}

void crypto_free(void *p, const char *, int) { free(p); }

bool g_openssl_counted = false;

// Before main: OpenSSL takes the functions only before its first
// allocation.
__attribute__((constructor)) void install_crypto_hooks() {
  g_openssl_counted = CRYPTO_set_mem_functions(crypto_malloc, crypto_realloc, crypto_free) == 1;
}

}  // namespace

namespace quarry_test {

bool alloc_fail_counts_openssl() { return g_openssl_counted; }

void alloc_fail_arm(long n) {
  t_fail_at = n;
  t_count = 0;
  t_fired = false;
  t_armed = true;
}

bool alloc_fail_disarm() {
  t_armed = false;
  return t_fired;
}

long alloc_fail_count() { return t_count; }

}  // namespace quarry_test

extern "C" {

void *__wrap_malloc(size_t size) { return fail_now() ? nullptr : __real_malloc(size); }

void *__wrap_calloc(size_t n, size_t size) { return fail_now() ? nullptr : __real_calloc(n, size); }

void *__wrap_realloc(void *p, size_t size) {
  return fail_now() ? nullptr : __real_realloc(p, size);
}

char *__wrap_strdup(const char *s) { return fail_now() ? nullptr : __real_strdup(s); }

char *__wrap_strndup(const char *s, size_t n) {
  return fail_now() ? nullptr : __real_strndup(s, n);
}

int __wrap_vasprintf(char **out, const char *fmt, va_list ap) {
  if (fail_now()) return -1;
  return __real_vasprintf(out, fmt, ap);
}

}  // extern "C"

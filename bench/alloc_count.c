/* Counts the heap allocations of the whole program, libc's and libstdc++'s
 * own included, so that a benchmark can show that a path allocates
 * nothing. malloc, calloc and realloc are replaced by the program's own,
 * which count and hand every call on to libc's allocator; free stays
 * libc's, the heap being the same. */
#include <stddef.h>

#include "bench/alloc_count.h"

#if defined(__SANITIZE_ADDRESS__)
#define QUARRY_BENCH_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUARRY_BENCH_SANITIZED 1
#endif
#endif

#ifndef QUARRY_BENCH_SANITIZED

/* glibc's allocator under its own names. */
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *ptr, size_t size);

/* Visible to the dynamic linker so that calls from the shared libraries
 * come here too. */
#define QUARRY_BENCH_INTERPOSE __attribute__((visibility("default")))

static int g_tracking;
static unsigned long long g_count;

static void note_allocation(void) {
  if (__atomic_load_n(&g_tracking, __ATOMIC_RELAXED)) {
    __atomic_fetch_add(&g_count, 1, __ATOMIC_RELAXED);
  }
}

QUARRY_BENCH_INTERPOSE void *malloc(size_t size) {
  note_allocation();
  return __libc_malloc(size);
}

QUARRY_BENCH_INTERPOSE void *calloc(size_t count, size_t size) {
  note_allocation();
  return __libc_calloc(count, size);
}

QUARRY_BENCH_INTERPOSE void *realloc(void *ptr, size_t size) {
  note_allocation();
  return __libc_realloc(ptr, size);
}

int quarry_bench_alloc_counting(void) { return 1; }

void quarry_bench_alloc_track(int on) { __atomic_store_n(&g_tracking, on != 0, __ATOMIC_RELAXED); }

unsigned long long quarry_bench_alloc_count(void) {
  return __atomic_load_n(&g_count, __ATOMIC_RELAXED);
}

#else /* QUARRY_BENCH_SANITIZED */

int quarry_bench_alloc_counting(void) { return 0; }

void quarry_bench_alloc_track(int on) { (void)on; }

unsigned long long quarry_bench_alloc_count(void) { return 0; }

#endif /* QUARRY_BENCH_SANITIZED */

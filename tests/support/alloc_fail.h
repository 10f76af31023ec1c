// Allocation-failure injection for test programs: the program is linked
// with the malloc family wrapped (see tests/alloc/CMakeLists.txt), so that
// every call of malloc, calloc, realloc, strdup, strndup and vasprintf
// made by the library's and the test's own objects, and every allocation
// of OpenSSL (through CRYPTO_set_mem_functions), passes through a
// counter. Once armed on a thread, the n-th of those calls made by that
// thread fails; other threads (the scripted peers) are never touched.
// free passes straight through. Allocations inside other shared libraries
// (libc's own, as in fopen or opendir, and libstdc++'s operator new) are
// not counted.
#ifndef QUARRY_TESTS_SUPPORT_ALLOC_FAIL_H
#define QUARRY_TESTS_SUPPORT_ALLOC_FAIL_H

namespace quarry_test {

// Fails the |n|-th (1-based) counted allocation of this thread from now.
void alloc_fail_arm(long n);
// Stops counting on this thread; returns whether the failure was injected.
bool alloc_fail_disarm();
// Counted allocations of this thread since it was last armed.
long alloc_fail_count();
// Whether OpenSSL's allocations are counted (its hook was taken).
bool alloc_fail_counts_openssl();

}  // namespace quarry_test

#endif  // QUARRY_TESTS_SUPPORT_ALLOC_FAIL_H

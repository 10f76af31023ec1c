// Base64 (RFC 4648). Encoding is OpenSSL's; decoding is our own because it
// must stay as lenient as the phone's peers expect: characters outside the
// alphabet count as zero, only whole four-character groups are read, and
// the padding count found after the data trims the result however the
// groups fall.
#include <openssl/evp.h>
#include <stdint.h>
#include <string.h>

#include "core/core.h"
#include "util/util.h"

namespace {

constexpr char kStandardAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUrlSafeAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr size_t kAlphabetSize = 64;
constexpr size_t kGroupChars = 4;
constexpr size_t kGroupBytes = 3;
constexpr size_t kBitsPerChar = 6;
constexpr size_t kOutputSpare = 4;
// EVP_EncodeBlock takes an int length; feed it whole groups at a time.
constexpr size_t kEncodeChunk = kGroupBytes * (1u << 20);

unsigned char_value(const char *alphabet, char c) {
  const void *hit = memchr(alphabet, c, kAlphabetSize);
  return hit == nullptr ? 0u : static_cast<unsigned>(static_cast<const char *>(hit) - alphabet);
}

size_t decode(const char *src, const char *alphabet, unsigned char **out) {
  *out = nullptr;
  size_t length = strcspn(src, "=");
  size_t padding = 0;
  if (src[length] == '=') {
    padding = 1;
    if (src[length + 1] == '=') padding = 2;
  }
  size_t groups = (length + padding) / kGroupChars;
  if (groups == 0) return 0;
  size_t decoded = groups * kGroupBytes - padding;

  auto *buf = static_cast<unsigned char *>(malloc(decoded + kOutputSpare));
  if (buf == nullptr) return 0;
  // Every group lies inside the measured text, so no read passes its end;
  // the last group's bytes beyond |decoded| land in the spare room.
  unsigned char *dst = buf;
  for (size_t g = 0; g < groups; ++g, src += kGroupChars) {
    uint32_t bits = 0;
    for (size_t i = 0; i < kGroupChars; ++i) {
      bits = (bits << kBitsPerChar) | char_value(alphabet, src[i]);
    }
    *dst++ = static_cast<unsigned char>(bits >> 16);
    *dst++ = static_cast<unsigned char>(bits >> 8);
    *dst++ = static_cast<unsigned char>(bits);
  }
  buf[decoded] = '\0';
  *out = buf;
  return decoded;
}

bool bad_decode_args(const char *src, unsigned char **out) {
  if (out != nullptr) *out = nullptr;
  if (src != nullptr && out != nullptr) return false;
  libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
  return true;
}

}  // namespace

extern "C" {

DL_EXPORT size_t Curl_base64_encode(const void *src, size_t len, char **out) {
  if (out != nullptr) *out = nullptr;
  if (src == nullptr || out == nullptr) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Invalid Param!\n");
    return 0;
  }
  if (len == 0) len = strlen(static_cast<const char *>(src));
  if (len > (SIZE_MAX - kOutputSpare) / kGroupChars) return 0;

  char *text = static_cast<char *>(malloc(len * kGroupChars / kGroupBytes + kOutputSpare));
  if (text == nullptr) return 0;
  const auto *from = static_cast<const unsigned char *>(src);
  size_t written = 0;
  text[0] = '\0';
  while (len > 0) {
    size_t take = len < kEncodeChunk ? len : kEncodeChunk;
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text) + written, from,
                            static_cast<int>(take));
    written += static_cast<size_t>(n);
    from += take;
    len -= take;
  }
  *out = text;
  return written;
}

DL_EXPORT size_t Curl_base64_decode(const char *src, unsigned char **out) {
  if (bad_decode_args(src, out)) return 0;
  return decode(src, kStandardAlphabet, out);
}

DL_EXPORT size_t Curl_base64url_decode(const char *src, unsigned char **out) {
  if (bad_decode_args(src, out)) return 0;
  size_t length = strlen(src);
  size_t rest = length % kGroupChars;
  if (rest == 1) return 0;
  size_t fill = rest == 0 ? 0 : kGroupChars - rest;
  quarry::UniqueMalloc<char> padded(static_cast<char *>(malloc(length + fill + 1)));
  if (!padded) return 0;
  memcpy(padded.get(), src, length);
  memset(padded.get() + length, '=', fill);
  padded.get()[length + fill] = '\0';
  return decode(padded.get(), kUrlSafeAlphabet, out);
}

}  // extern "C"

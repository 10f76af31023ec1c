// The bounded reader of DNS messages.
#include "net/dns_cursor.h"

#include <string.h>

namespace quarry {

namespace {

// A length byte with either top bit set starts a two-byte pointer.
constexpr uint8_t kPointerBits = 0xC0;
constexpr uint16_t kPointerMask = 0x3FFF;
constexpr size_t kPointerLen = 2;
// A name of 255 bytes has at most 128 labels; more jumps than that can only
// be a loop.
constexpr int kMaxPointerJumps = 128;

}  // namespace

bool DnsCursor::u16(uint16_t *out) {
  if (left() < 2) return false;
  *out = static_cast<uint16_t>((data_[pos_] << 8) | data_[pos_ + 1]);
  pos_ += 2;
  return true;
}

bool DnsCursor::u32(uint32_t *out) {
  if (left() < 4) return false;
  *out = (static_cast<uint32_t>(data_[pos_]) << 24) | (static_cast<uint32_t>(data_[pos_ + 1]) << 16) |
         (static_cast<uint32_t>(data_[pos_ + 2]) << 8) | data_[pos_ + 3];
  pos_ += 4;
  return true;
}

bool DnsCursor::bytes(void *out, size_t n) {
  if (left() < n) return false;
  memcpy(out, data_ + pos_, n);
  pos_ += n;
  return true;
}

bool DnsCursor::skip(size_t n) {
  if (left() < n) return false;
  pos_ += n;
  return true;
}

bool DnsCursor::seek(size_t pos) {
  if (pos > size_) return false;
  pos_ = pos;
  return true;
}

bool DnsCursor::name(char *out, size_t room) {
  if (room == 0) return false;
  size_t at = pos_;
  size_t resume = 0;  // where the caller continues once a pointer was taken
  bool jumped = false;
  int jumps = 0;
  size_t len = 0;
  for (;;) {
    if (at >= size_) return false;
    const uint8_t b = data_[at];
    if ((b & kPointerBits) != 0) {
      if (at + kPointerLen > size_) return false;
      const size_t target = ((static_cast<size_t>(b) << 8) | data_[at + 1]) & kPointerMask;
      if (target >= size_ || ++jumps > kMaxPointerJumps) return false;
      if (!jumped) resume = at + kPointerLen;
      jumped = true;
      at = target;
      continue;
    }
    if (b == 0) {
      ++at;
      break;
    }
    if (b > size_ - at - 1) return false;
    const size_t dot = len > 0 ? 1 : 0;
    if (len + dot + b + 1 > room) return false;
    if (dot != 0) out[len++] = '.';
    memcpy(out + len, data_ + at + 1, b);
    len += b;
    at += 1 + static_cast<size_t>(b);
  }
  out[len] = '\0';
  pos_ = jumped ? resume : at;
  return true;
}

}  // namespace quarry

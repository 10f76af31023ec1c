// A bounded reader over one received DNS message: every read of a reply
// goes through it, and a read that would pass the end fails instead.
#ifndef QUARRY_NET_DNS_CURSOR_H
#define QUARRY_NET_DNS_CURSOR_H

#include <stddef.h>
#include <stdint.h>

namespace quarry {

class DnsCursor {
 public:
  DnsCursor(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  size_t pos() const { return pos_; }
  size_t size() const { return size_; }
  // Bytes left from the current position.
  size_t left() const { return size_ - pos_; }

  // Each moves past what it read and returns false, leaving the position
  // alone, when the message is too short.
  bool u16(uint16_t *out);
  bool u32(uint32_t *out);
  bool bytes(void *out, size_t n);
  bool skip(size_t n);
  // Moves to |pos|, which may be the end but not past it.
  bool seek(size_t pos);

  // Reads a domain name (RFC 1035 4.1.4: labels, or a pointer to labels
  // elsewhere in the message) into |out| as dotted text, terminated, in at
  // most |room| bytes. After a pointer the position continues two bytes
  // after the first pointer. Fails on a pointer outside the message, a
  // label past the end or past |room|, and on pointer chains too long to
  // be anything but a loop.
  bool name(char *out, size_t room);

 private:
  const uint8_t *data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace quarry

#endif  // QUARRY_NET_DNS_CURSOR_H

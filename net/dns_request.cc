// The query the own resolver sends (RFC 1035 4.1.1 header, 4.1.2
// question): one question, recursion desired.
#include <string.h>

#include "net/dns_message.h"

namespace quarry {

namespace {

constexpr uint16_t kFlagRecursionDesired = 0x0100;
constexpr size_t kMaxNameLen = 255;
constexpr size_t kMaxLabelLen = 63;
// Length bytes beyond the name's own text: the first label's and the
// closing zero; then type and class.
constexpr size_t kNameOverhead = 2;
constexpr size_t kTypeClassLen = 4;

uint8_t *put16(uint8_t *p, unsigned value) {
  p[0] = static_cast<uint8_t>(value >> 8);
  p[1] = static_cast<uint8_t>(value);
  return p + 2;
}

size_t refuse() {
  libq_log(kModCommon, kLogError, "dns create request error\n");
  return 0;
}

}  // namespace

size_t dns_build_query(uint8_t *buf, size_t room, uint16_t id, const char *name, int type,
                       int qclass) {
  const size_t name_len = strlen(name);
  if (name_len > kMaxNameLen || kDnsHeaderLen + name_len + kNameOverhead + kTypeClassLen > room) {
    return refuse();
  }
  uint8_t *p = put16(buf, id);
  p = put16(p, kFlagRecursionDesired);
  p = put16(p, 1);  // QDCOUNT
  p = put16(p, 0);  // ANCOUNT
  p = put16(p, 0);  // NSCOUNT
  p = put16(p, 0);  // ARCOUNT

  // Labels split at each dot; a name ending in a dot already ends with
  // the empty label, any other gets the closing zero.
  const char *label = name;
  size_t label_len;
  for (;;) {
    const char *dot = strchr(label, '.');
    label_len = dot != nullptr ? static_cast<size_t>(dot - label) : strlen(label);
    if (label_len > kMaxLabelLen) return refuse();
    *p++ = static_cast<uint8_t>(label_len);
    memcpy(p, label, label_len);
    p += label_len;
    if (dot == nullptr) break;
    label = dot + 1;
  }
  if (label_len != 0) *p++ = 0;

  p = put16(p, static_cast<unsigned>(type));
  p = put16(p, static_cast<unsigned>(qclass));
  return static_cast<size_t>(p - buf);
}

}  // namespace quarry

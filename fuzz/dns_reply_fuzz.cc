// libFuzzer target for the own resolver's reply reader: the input is the
// reply to a fixed query. The first byte picks the type asked (A, AAAA,
// PTR or CNAME); the rest is the reply, whose identifier is set to the
// query's so that the reader gets past its first check.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "net/dns_message.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace {

constexpr uint16_t kId = 0x4d2a;
constexpr const char *kName = "www.example.test";
constexpr int kTypes[] = {1, 28, 12, 5};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  // Nothing the reader logs is of interest here; keep the runs fast.
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const int type = kTypes[data[0] % (sizeof(kTypes) / sizeof(kTypes[0]))];
  // An exact-size copy, so that any read past the end is caught.
  std::vector<uint8_t> reply(data + 1, data + size);
  if (reply.size() >= 2) {
    reply[0] = static_cast<uint8_t>(kId >> 8);
    reply[1] = static_cast<uint8_t>(kId & 0xff);
  }
  dns_answer answer;
  memset(&answer, 0, sizeof(answer));
  answer.type = static_cast<uint32_t>(type);
  int rc = quarry::dns_read_reply(reply.data(), reply.size(), kId, kName, type, &answer);
  if (rc == 0 && type != 12 && answer.count > 32) __builtin_trap();
  return 0;
}

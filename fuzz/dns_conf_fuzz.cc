// libFuzzer target for the resolver and hosts file parsers: the first byte
// picks the parser, the rest is the file's content. The lists are then
// walked the way the resolver reads them, and freed.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "net/dns_context.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace {

struct MemFile {
  explicit MemFile(const uint8_t *data, size_t size)
      : f(fmemopen(const_cast<uint8_t *>(data), size, "r")) {}
  ~MemFile() {
    if (f != nullptr) fclose(f);
  }
  FILE *f;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  dns_conf_base_st ctx;
  if (dns_conf_base_st_init(&ctx) != 0) return 0;
  {
    MemFile file(data + 1, size - 1);
    if (file.f != nullptr) {
      if (data[0] & 1) {
        quarry::hosts_parse(&ctx, file.f);
      } else {
        quarry::resolv_conf_parse(&ctx, file.f);
      }
    }
  }
  sockaddr_storage servers[quarry::kDnsMaxServers];
  if (quarry::copy_servers(&ctx, servers) > quarry::kDnsMaxServers) __builtin_trap();
  dns_answer answer;
  memset(&answer, 0, sizeof(answer));
  quarry::hosts_lookup(&ctx, "localhost", (data[0] & 2) ? 28 : 1, &answer);
  if (answer.count > 32) __builtin_trap();
  dns_conf_base_st_destroy(&ctx);
  return 0;
}

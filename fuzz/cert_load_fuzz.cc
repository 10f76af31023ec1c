// libFuzzer target for certificate file loading: the input is written to
// a file of this process's own and read by dl_get_ca_info and
// dl_get_ca_info_ex, which tell PEM from DER, parse the certificate (and,
// when asked, a private key in the same file) and fill the detail texts.
//
// Input: byte 0 bit 0 asks dl_get_ca_info_ex for the private key too;
// the rest is the file.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include "quarry.h"
#include "quarry_internal.h"

namespace {

constexpr size_t kMaxInput = 65536;
char g_path[64];

bool write_file(const uint8_t *data, size_t len) {
  FILE *f = fopen(g_path, "wb");
  if (f == nullptr) return false;
  bool ok = fwrite(data, 1, len, f) == len;
  return fclose(f) == 0 && ok;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  snprintf(g_path, sizeof(g_path), "/tmp/quarry-cert-fuzz-%ld.crt", static_cast<long>(getpid()));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  const int flags = data[0] & 1;
  if (!write_file(data + 1, size - 1)) return 0;
  dl_ca_info info = {};
  dl_get_ca_info(g_path, &info);
  // The _ex form rewrites a DER file as PEM, so it reads a fresh copy.
  if (!write_file(data + 1, size - 1)) return 0;
  dl_ca_info_ex ex = {};
  dl_cert_result result = {};
  dl_get_ca_info_ex(g_path, &ex, flags, &result);
  unlink(g_path);
  return 0;
}

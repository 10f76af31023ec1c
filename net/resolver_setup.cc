// The resolver context's lifecycle as the library's start-up and exit see
// it. Until the own resolver reads its files, the context holds nothing:
// every call succeeds and loads no entry.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "core/core.h"

namespace {

constexpr int kSeqEntries = 2;

int g_resolv_seq[kSeqEntries] = {0, 0};

}  // namespace

extern "C" {

DL_EXPORT int dns_ctx_init(void) {
  srand(static_cast<unsigned>(time(nullptr)));
  return 0;
}

DL_EXPORT int dns_ctx_destroy(void) { return 0; }

DL_EXPORT int dns_load_resolv_conf(const char *path) {
  (void)path;
  return 0;
}

DL_EXPORT int dns_load_hosts(const char *path) {
  (void)path;
  return 0;
}

DL_EXPORT int dl_dns_set_resolv_seq(const int *seq, int count) {
  if (seq == nullptr || count > kSeqEntries) return -1;
  memset(g_resolv_seq, 0, sizeof(g_resolv_seq));
  for (int i = 0; i < count; ++i) g_resolv_seq[i] = seq[i];
  return 0;
}

}  // extern "C"

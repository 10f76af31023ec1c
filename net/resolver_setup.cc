// The resolver context's lifecycle as the library's start-up and exit see
// it, the reload of changed resolver files before each connect, and the
// own resolver's entry point. The own resolver's file parsing and queries
// come later: until then the context holds nothing, a reload loads no
// entry, and only numeric addresses resolve.
#include <arpa/inet.h>
#include <resolv.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "net/net.h"

namespace {

constexpr int kSeqEntries = 2;
// Room for a path field filled to the last byte, plus its terminator.
constexpr size_t kPathRoom = DL_PATH_MAX_LEN + 1;

int g_resolv_seq[kSeqEntries] = {0, 0};

// Runs |reload| on the file of |path_field| when its modification time is
// not the one recorded at its last load, recording the new one first; all
// under |lock_field|. Returns the reload's result, or -1 when the time
// could not be read or had not changed.
int reload_on_change(char (dl_config::*path_field)[DL_PATH_MAX_LEN],
                     int32_t dl_config::*mtime_field, pthread_mutex_t dl_config::*lock_field,
                     int (*reload)(const char *path)) {
  char path[kPathRoom];
  quarry::cfg_read_text(path_field, path, sizeof(path));
  time_t mtime;
  if (dl_get_file_mtime(path, &mtime) != 0) return -1;

  quarry::MutexGuard lock(&(g_dl_cfg.*lock_field));
  if (static_cast<int32_t>(mtime) == g_dl_cfg.*mtime_field) return -1;
  g_dl_cfg.*mtime_field = static_cast<int32_t>(mtime);
  return reload(path);
}

int reload_resolv_conf(const char *path) {
  libq_log(quarry::kModCommon, quarry::kLogNotice, "resolv modified, reinit\n");
  int ret = dns_reload_resolv_conf(path);
  // libc's resolver follows the same file.
  res_init();
  return ret;
}

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

// Callers ignore this result; it has always been -1.
DL_EXPORT int dns_reload_resolv_conf(const char *path) {
  (void)path;
  return -1;
}

DL_EXPORT int dns_reload_hosts_conf(const char *path) {
  (void)path;
  return 0;
}

DL_EXPORT int dl_dns_reload_resolv_conf(void) {
  return reload_on_change(&dl_config::resolv_conf_path, &dl_config::resolv_conf_mtime,
                          &dl_config::resolv_lock, reload_resolv_conf);
}

DL_EXPORT int dl_dns_reload_hosts_conf(void) {
  return reload_on_change(&dl_config::hosts_path, &dl_config::hosts_mtime,
                          &dl_config::hosts_lock, dns_reload_hosts_conf);
}

DL_EXPORT int dl_dns_resolv(const char *name, int type, int qclass, dns_answer *answer) {
  (void)qclass;
  if (name == nullptr || answer == nullptr) return -1;
  memset(answer, 0, sizeof(*answer));
  int family;
  if (type == quarry::kDnsTypeA) {
    family = AF_INET;
  } else if (type == quarry::kDnsTypeAAAA) {
    family = AF_INET6;
  } else {
    return -1;
  }
  if (inet_pton(family, name, answer->addr) != 1) return -1;
  answer->type = static_cast<uint32_t>(type);
  answer->count = 1;
  return 0;
}

DL_EXPORT int dl_dns_set_resolv_seq(const int *seq, int count) {
  if (seq == nullptr || count > kSeqEntries) return -1;
  memset(g_resolv_seq, 0, sizeof(g_resolv_seq));
  for (int i = 0; i < count; ++i) g_resolv_seq[i] = seq[i];
  return 0;
}

}  // extern "C"

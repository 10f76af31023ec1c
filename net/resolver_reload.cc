// Following edits of the resolver and hosts files: before each connect
// the file whose modification time changed since its last load is read
// again; and forgetting a file's list and time.
#include <resolv.h>
#include <time.h>

#include "net/dns_context.h"

namespace {

// Room for a path field filled to the last byte, plus its terminator.
constexpr size_t kPathRoom = DL_PATH_MAX_LEN + 1;

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

// Forgets the file's recorded time, so that the next check loads it again,
// and frees its list; under |lock_field|.
int forget(int32_t dl_config::*mtime_field, pthread_mutex_t dl_config::*lock_field,
           int (*destroy)()) {
  quarry::MutexGuard lock(&(g_dl_cfg.*lock_field));
  g_dl_cfg.*mtime_field = 0;
  return destroy();
}

}  // namespace

extern "C" {

DL_EXPORT int dl_dns_reload_resolv_conf(void) {
  return reload_on_change(&dl_config::resolv_conf_path, &dl_config::resolv_conf_mtime,
                          &dl_config::resolv_lock, reload_resolv_conf);
}

DL_EXPORT int dl_dns_reload_hosts_conf(void) {
  return reload_on_change(&dl_config::hosts_path, &dl_config::hosts_mtime,
                          &dl_config::hosts_lock, dns_reload_hosts_conf);
}

DL_EXPORT int dl_dns_resolv_conf_destroy(void) {
  return forget(&dl_config::resolv_conf_mtime, &dl_config::resolv_lock, dns_resolv_conf_destroy);
}

DL_EXPORT int dl_dns_hosts_conf_destroy(void) {
  return forget(&dl_config::hosts_mtime, &dl_config::hosts_lock, dns_hosts_conf_destroy);
}

}  // extern "C"

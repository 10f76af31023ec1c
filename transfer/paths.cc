// What an upload URL's path says about the remote file name.
#include <stdio.h>
#include <string.h>

#include "core/core.h"
#include "transfer/transfer.h"

namespace {

constexpr size_t kUrlPathCopy = 512;

const char *base_name(const char *path) {
  const char *slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

extern "C" {

DL_EXPORT int path_is_file(const char *path) {
  if (path == nullptr || path[0] == '\0') return 0;
  return path[strlen(path) - 1] != '/' ? 1 : 0;
}

DL_EXPORT int path_is_upgrade_cfg_file(const char *path) {
  if (path == nullptr || path[0] == '\0') return 0;
  return strchr(path, '.') != nullptr ? 1 : 0;
}

}  // extern "C"

namespace quarry {

void upload_target(const char *url_path, const char *remote_name, const char *local_file,
                   char *target, size_t target_size) {
  char dir[kUrlPathCopy];
  snprintf(dir, sizeof(dir), "%s", url_path != nullptr ? url_path : "");
  libq_log(kModCommon, kLogInfo, "Uplaod path without filename is %s \n", dir);
  // A path that names a file keeps only its directory. One that ends in
  // neither "/" nor a name with a dot is taken as it stands, so the file
  // name is glued on without a separator: the phone has always done so.
  if (path_is_file(dir) && path_is_upgrade_cfg_file(dir)) {
    char *slash = strrchr(dir, '/');
    if (slash != nullptr) slash[1] = '\0';
  }
  const char *name = (remote_name != nullptr && remote_name[0] != '\0') ? remote_name
                                                                        : base_name(local_file);
  snprintf(target, target_size, "%s%s", dir, name);
}

}  // namespace quarry

// Facts about local files: size, modification time, directory test.
#include <sys/stat.h>

#include "core/core.h"

extern "C" {

DL_EXPORT int32_t dl_get_file_size(const char *path) {
  if (path == nullptr) {
    libq_log(quarry::kModCommon, quarry::kLogError, "NULL path!\n");
    return -1;
  }
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  // Callers have always taken the size as a 32-bit number.
  return static_cast<int32_t>(st.st_size);
}

DL_EXPORT int dl_get_file_mtime(const char *path, time_t *mtime) {
  if (path == nullptr || mtime == nullptr || path[0] == '\0') return -1;
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  *mtime = st.st_mtime;
  return 0;
}

DL_EXPORT int dl_path_is_directory(const char *path) {
  if (path == nullptr) {
    libq_log(quarry::kModCommon, quarry::kLogError, "NULL path!\n");
    return 0;
  }
  struct stat st;
  return (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) ? 1 : 0;
}

}  // extern "C"

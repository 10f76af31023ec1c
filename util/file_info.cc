// Facts about local files: size, modification time, directory test.
#include <sys/stat.h>

#include "core/core.h"

extern "C" {

DL_EXPORT int dl_get_file_mtime(const char *path, time_t *mtime) {
  if (path == nullptr || mtime == nullptr || path[0] == '\0') return -1;
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  *mtime = st.st_mtime;
  return 0;
}

}  // extern "C"

// Which file a transfer reads or writes when the caller names none.
#include <string.h>

#include "ftp/ftp_conn.h"

namespace quarry {

const char *ftp_download_name(const char *remote_path) {
  const char *slash = strrchr(remote_path, '/');
  if (slash != nullptr) return slash + 1;
  // Without any "/" the phone has always dropped the first character
  // ("file.bin" is saved as "ile.bin"); an empty path stays empty.
  return remote_path[0] != '\0' ? remote_path + 1 : remote_path;
}

const char *ftp_upload_name(const char *local_path) {
  const char *slash = strrchr(local_path, '/');
  return slash != nullptr ? slash + 1 : local_path;
}

}  // namespace quarry

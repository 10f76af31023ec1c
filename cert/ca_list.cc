// Listing the trust directory into the fixed records of the certificate
// screens: at most ten certificates; a stored file that cannot be read as
// a certificate is deleted so that it does not hold a slot forever.
#include <dirent.h>
#include <string.h>
#include <unistd.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr int kStatusBadArgument = 1;
constexpr int kStatusNoDirectory = 2;

void log_list_full() {
  libq_log(kModCommon, kLogWarning, "number of ca file is no less than 10!\n");
}

// Calls |fill|(full path, entry path) for every stored certificate of the
// trust directory until it has counted DL_CA_LIST_MAX; |fill| returns
// whether the entry counts. False when the directory cannot be opened.
template <typename Fill>
bool walk_trust_dir(Fill fill) {
  char trust[kPathRoom];
  read_trust_dir(trust);
  DirPtr dir(opendir(trust));
  if (!dir) return false;
  uint32_t count = 0;
  while (struct dirent *entry = readdir(dir.get())) {
    if (!is_cert_entry(entry->d_name)) continue;
    if (count == DL_CA_LIST_MAX) {
      log_list_full();
      return true;
    }
    char path[kPathRoom];
    if (!path_printf(path, "%s%s", trust, entry->d_name)) continue;
    // A certificate that could not be read for want of memory is still
    // good: it is kept, and read a second time before it is given up,
    // since OpenSSL's decoders do not always say why they failed.
    if (fill(count, path) || (!last_load_out_of_memory() && fill(count, path))) {
      ++count;
    } else if (!last_load_out_of_memory()) {
      // The entry of the trust directory itself, not a file of that name
      // in the working directory.
      (void)unlink(path);
    }
  }
  return true;
}

}  // namespace

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT int dl_get_trust_ca_info(dl_ca_list *list) {
  if (list == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    return -1;
  }
  memset(list, 0, sizeof *list);
  bool opened = walk_trust_dir([list](uint32_t slot, const char *path) {
    dl_ca_info *info = &list->info[slot];
    memset(info, 0, sizeof *info);
    copy_text_field(info->path, path, sizeof info->path - 1);
    if (dl_get_ca_info(path, info) == -2) {
      memset(info, 0, sizeof *info);
      return false;
    }
    list->count = slot + 1;
    return true;
  });
  return opened ? 0 : -2;
}

DL_EXPORT int dl_get_trust_ca_info_ex(dl_ca_list_ex *list, dl_cert_result *result) {
  if (list == nullptr || result == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    if (result != nullptr) result->status = kStatusBadArgument;
    return -1;
  }
  memset(result, 0, sizeof *result);
  memset(list, 0, sizeof *list);
  bool opened = walk_trust_dir([list](uint32_t slot, const char *path) {
    dl_ca_info_ex *info = &list->info[slot];
    dl_cert_result one = {};
    if (dl_get_ca_info_ex(path, info, 0, &one) != 0) {
      memset(info, 0, sizeof *info);
      return false;
    }
    copy_text_field(info->path, path, sizeof info->path - 1);
    list->count = slot + 1;
    return true;
  });
  if (!opened) {
    result->status = kStatusNoDirectory;
    return -1;
  }
  return 0;
}

}  // extern "C"

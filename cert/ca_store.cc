// Installing and deleting trusted CA certificates. A certificate lives in
// the trust directory T as "<hash>.0" with a link "<hash>" beside it and a
// link "ca/<hash>.0" in the all-CA directory, where the TLS layer's
// hashed-directory lookup finds it.
#include <dirent.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

// Whether a ".0" file of |dir| has the subject hash |hash|.
bool dir_holds_hash(const char *dir, DIR *d, unsigned long hash) {
  while (struct dirent *entry = readdir(d)) {
    if (!is_cert_entry(entry->d_name)) continue;
    char path[kPathRoom];
    if (!path_printf(path, "%s%s", dir, entry->d_name)) continue;
    if (hash_cert_file(path) == hash) return true;
  }
  return false;
}

}  // namespace

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT int dl_install_ca(const char *path) {
  unsigned long hash = hash_cert_file(path);
  if (hash == 0) return -1;
  char trust[kPathRoom];
  read_trust_dir(trust);
  DirPtr trust_dir(open_or_make_dir(trust));
  if (!trust_dir) {
    libq_log(kModCommon, kLogError, "Can't open custom trust certs directory\n");
    return -1;
  }
  char all_ca[kPathRoom];
  if (!path_printf(all_ca, "%sca/", trust) || !DirPtr(open_or_make_dir(all_ca))) {
    libq_log(kModCommon, kLogError, "Can't create directory all ca certs directory\n");
  }
  if (dir_holds_hash(trust, trust_dir.get(), hash)) {
    libq_log(kModCommon, kLogError, "the ca file file has existed in custom certs directory\n");
    return -2;
  }
  char factory[kPathRoom];
  DirPtr factory_dir(path_printf(factory, "%sphoneca/", trust) ? open_or_make_dir(factory)
                                                               : nullptr);
  if (!factory_dir) {
    libq_log(kModCommon, kLogError, "Can't open factory prefabrication directory\n");
    return -1;
  }
  if (dir_holds_hash(factory, factory_dir.get(), hash)) {
    libq_log(kModCommon, kLogError, "the ca file has existed by factory prefabrication\n");
    return -3;
  }
  char stored[kPathRoom], link[kPathRoom], all_link[kPathRoom];
  // The trust directory is at most 511 bytes, so these always fit.
  if (!path_printf(stored, "%s%08lx.0", trust, hash) || !path_printf(link, "%s%08lx", trust, hash) ||
      !path_printf(all_link, "%s%08lx.0", all_ca, hash)) {
    return -1;
  }
  // As with the shell commands these replace, only the duplicate check
  // above decides the result.
  dl_copy_file(path, stored);
  (void)symlink(stored, link);
  (void)symlink(stored, all_link);
  return 0;
}

DL_EXPORT int dl_del_ca(const char *path) {
  unsigned long hash = hash_cert_file(path);
  if (path != nullptr) (void)unlink(path);
  if (hash == 0) return 0;
  libq_log(kModCommon, kLogInfo, "hash:%lx\n", hash);
  char trust[kPathRoom];
  read_trust_dir(trust);
  // Without a trust directory these names would point at the file
  // system's root and the working directory.
  if (trust[0] == '\0') return 0;
  char name[kPathRoom];
  if (path_printf(name, "%s/ca/%08lx.0", trust, hash)) (void)unlink(name);
  if (path_printf(name, "%s/ca/%08lx", trust, hash)) (void)unlink(name);
  if (path_printf(name, "%s%08lx.0", trust, hash)) (void)unlink(name);
  if (path_printf(name, "%s%08lx", trust, hash)) (void)unlink(name);
  return 0;
}

}  // extern "C"

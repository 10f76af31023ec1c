// Directory work of the certificate store. Paths come from settings and
// callers and may hold any character, so they only ever reach system calls
// (mkdir, unlink, symlink), never a shell.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr mode_t kDirMode = 0777;  // as mkdir(1): the umask decides

}  // namespace

bool path_printf(char *out, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int n = vsnprintf(out, kPathRoom, fmt, args);
  va_end(args);
  if (n < 0 || static_cast<size_t>(n) >= kPathRoom) {
    out[0] = '\0';
    return false;
  }
  return true;
}

DIR *open_or_make_dir(const char *dir) {
  DIR *d = opendir(dir);
  if (d != nullptr) return d;
  if (mkdir(dir, kDirMode) != 0) return nullptr;
  return opendir(dir);
}

void read_trust_dir(char *out) { cfg_read_text(&dl_config::trust_ca_dir, out, kPathRoom); }

bool is_cert_entry(const char *name) { return strstr(name, ".0") != nullptr; }

}  // namespace cert
}  // namespace quarry

// The device's own certificate and key: one PEM file (server_cert_path,
// normally R/server/WebServer.pem) beside the factory's R/phonedev/
// WebServer.pem.
#include <dirent.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr uint32_t kLastMethod = 5;
constexpr size_t kMd5HexRoom = 33;
constexpr mode_t kServerDirMode = 0775;
constexpr char kServerWord[] = "server";

void read_device_path(char *out) { cfg_read_text(&dl_config::server_cert_path, out, kPathRoom); }

// Cuts |path| at its last '/' into |out|; false when it has none.
bool parent_of(const char *path, char *out) {
  const char *slash = strrchr(path, '/');
  if (slash == nullptr) return false;
  size_t n = static_cast<size_t>(slash - path);
  memcpy(out, path, n);
  out[n] = '\0';
  return true;
}

// Whether both files can be digested and their MD5 digests are equal.
bool same_md5(const char *a, const char *b) {
  char da[kMd5HexRoom], db[kMd5HexRoom];
  return dl_get_file_md5(a, da) == 0 && dl_get_file_md5(b, db) == 0 && strcmp(da, db) == 0;
}

bool same_file(const char *a, const char *b) {
  struct stat sa = {}, sb = {};
  return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// The certificate and the key of the file at |path|, each null when absent.
bool load_pair(const char *path, X509Ptr *x, PkeyPtr *key) {
  BioPtr bio(BIO_new_file(path, "r"));
  if (!bio) {
    ERR_clear_error();
    return false;
  }
  Format format = detect_format(path);
  x->reset(read_cert(bio.get(), format));
  (void)BIO_reset(bio.get());
  key->reset(read_key(bio.get(), format));
  return true;
}

}  // namespace

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT int dl_install_ser_ca(const char *path) {
  if (OPENSSL_init_ssl(0, nullptr) != 1) {
    libq_log(kModCommon, kLogError, "SSL_library_init error\n");
    return -5;
  }
  char device[kPathRoom], server_dir[kPathRoom], root[kPathRoom];
  read_device_path(device);
  uint32_t method = cfg_read(&dl_config::ssl_method);
  if (!parent_of(device, server_dir) || !parent_of(server_dir, root)) {
    libq_log(kModCommon, kLogError, "Wrong server ca path\n");
    return -7;
  }
  if (method > kLastMethod) {
    libq_log(kModCommon, kLogError, "Wrong method");
    return -7;
  }
  switch (check_pair(path, method)) {
    case PairCheck::kOk:
      break;
    case PairCheck::kContext:
    case PairCheck::kCaFile:
      return -5;
    case PairCheck::kCertificate:
      return -3;
    case PairCheck::kKey:
      return -2;
    case PairCheck::kMismatch:
      return -4;
  }
  if (!DirPtr(open_or_make_dir(root))) {
    libq_log(kModCommon, kLogError, "Can't open trust_path\n");
    return -6;
  }
  if (!DirPtr(open_or_make_dir(server_dir))) {
    libq_log(kModCommon, kLogError, "Can't open serverdir\n");
    return -6;
  }
  char custom[kPathRoom], factory[kPathRoom];
  if (path_printf(custom, "%s/server/WebServer.pem", root) && same_md5(path, custom)) {
    libq_log(kModCommon, kLogError, "cert file same to custom device cert file\n");
    return -7;
  }
  if (path_printf(factory, "%s/phonedev/WebServer.pem", root) && same_md5(path, factory)) {
    libq_log(kModCommon, kLogError, "cert file same to factory prefabrication device cert flie\n");
    return -8;
  }
  // Copying a file onto itself would empty it.
  if (!same_file(path, device)) dl_copy_file(path, device);
  return 0;
}

DL_EXPORT int dl_install_ser_ca_separate(const char *path) {
  if (path == nullptr) {
    libq_log(kModCommon, kLogError, "Invaild paramter\n");
    return -1;
  }
  char device[kPathRoom];
  read_device_path(device);
  X509Ptr x;
  PkeyPtr key;
  if (!load_pair(path, &x, &key)) {
    libq_log(kModCommon, kLogError, "Bio_new_file dev cert err\n");
    return -1;
  }
  if (!x && !key) {
    libq_log(kModCommon, kLogError, "load dev cert err\n");
    return -1;
  }
  X509Ptr old_x;
  PkeyPtr old_key;
  if (!load_pair(device, &old_x, &old_key)) {
    libq_log(kModCommon, kLogError, "Bio_new_file dev cert err\n");
  }
  if (!x) x = std::move(old_x);
  if (!key) key = std::move(old_key);
  const char *word = strstr(device, kServerWord);
  if (word == nullptr) {
    libq_log(kModCommon, kLogError, "server cert dir err");
    return -1;
  }
  char server_dir[kPathRoom];
  size_t cut = static_cast<size_t>(word - device) + strlen(kServerWord);
  memcpy(server_dir, device, cut);
  server_dir[cut] = '\0';
  DirPtr dir(opendir(server_dir));
  if (!dir && mkdir(server_dir, kServerDirMode) == 0) dir.reset(opendir(server_dir));
  if (!dir) {
    libq_log(kModCommon, kLogError, "Can't open serverdir\n");
    return -1;
  }
  // Written beside the device file and renamed over it once complete, so
  // that a failed write leaves the old file, not a truncated one.
  char partial[kPathRoom];
  if (!path_printf(partial, "%s.tmp", device)) {
    libq_log(kModCommon, kLogError, "Bio_new_file dev cert err\n");
    return -1;
  }
  BioPtr out(BIO_new_file(partial, "w"));
  bool written = write_pem(out.get(), x.get(), key.get());
  out.reset();
  if (!written || rename(partial, device) != 0) {
    ERR_clear_error();
    (void)unlink(partial);
    libq_log(kModCommon, kLogError, "Bio_new_file dev cert err\n");
    return -1;
  }
  return 0;
}

DL_EXPORT int dl_del_ser_ca(void) {
  char device[kPathRoom];
  read_device_path(device);
  if (device[0] != '\0') (void)unlink(device);
  return 0;
}

DL_EXPORT int dl_get_ser_ca_info(dl_ca_info *info) {
  if (info == nullptr) {
    libq_log(kModCommon, kLogError, "Invalid Parameter\n");
    return -1;
  }
  memset(info, 0, sizeof *info);
  char device[kPathRoom];
  read_device_path(device);
  int filled = dl_get_ca_info(device, info);
  if (filled != 0) return filled;
  X509Ptr x;
  PkeyPtr key;
  if (!load_pair(device, &x, &key)) {
    libq_log(kModCommon, kLogError, "Bio_new_file error dev cert\n");
  }
  if (x && key && X509_check_private_key(x.get(), key.get()) == 1) return 0;
  ERR_clear_error();
  libq_log(kModCommon, kLogWarning, "private key doesn't match public key\n");
  return -3;
}

}  // extern "C"

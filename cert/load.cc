// Certificate files as the store finds them: PEM or DER, told apart by a
// "BEGIN" line, and the subject-name hash that names them in the trust
// directory. A DER file that is hashed is rewritten as PEM in place, so
// that the TLS layer's directory lookup (PEM only) can read every stored
// certificate.
#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cert/cert.h"
#include "core/core.h"
#include "net/net.h"
#include "util/util.h"

namespace quarry {
namespace cert {

namespace {

constexpr size_t kLineRoom = 1024;
constexpr char kTempPem[] = "/tmp/ca_tmp.crt";
constexpr int kTempCreateAttempts = 3;
constexpr size_t kCopyBlock = 4096;
constexpr mode_t kTempMode = 0600;
constexpr mode_t kFileMode = 0666;

bool write_all(int fd, const unsigned char *data, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// Copies everything of |from| (rewound) into a new file at |to|.
bool copy_fd_to_path(int from, const char *to) {
  if (lseek(from, 0, SEEK_SET) != 0) return false;
  UniqueFd out(open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
  if (out.get() < 0) return false;
  unsigned char block[kCopyBlock];
  for (;;) {
    ssize_t n = read(from, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    if (!write_all(out.get(), block, static_cast<size_t>(n))) return false;
  }
}

// Rewrites the DER file |path| as the PEM form of |x|, going through the
// temporary file. The temporary name is made afresh (never followed as a
// link) and the copy is read from our own descriptor, so another process
// using the same name cannot swap its content in.
bool rewrite_as_pem(const char *path, X509 *x) {
  libq_log(kModCommon, kLogInfo, "convert to PEM code\n");
  UniqueFd tmp;
  // Another process converting at the same moment may create the name
  // between our unlink and open; the name is fixed, so take it again.
  for (int attempt = 0; attempt < kTempCreateAttempts && tmp.get() < 0; ++attempt) {
    unlink(kTempPem);
    tmp.reset(open(kTempPem, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kTempMode));
    if (tmp.get() < 0 && errno != EEXIST) break;
  }
  BioPtr out(tmp.get() >= 0 ? BIO_new_fd(tmp.get(), BIO_NOCLOSE) : nullptr);
  if (!write_pem(out.get(), x, nullptr)) {
    libq_log(kModCommon, kLogError, "open file err\n");
    if (tmp.get() >= 0) unlink(kTempPem);
    return false;
  }
  unlink(path);
  bool copied = copy_fd_to_path(tmp.get(), path);
  struct stat mine = {}, named = {};
  if (fstat(tmp.get(), &mine) == 0 && lstat(kTempPem, &named) == 0 && mine.st_ino == named.st_ino &&
      mine.st_dev == named.st_dev) {
    unlink(kTempPem);
  }
  if (!copied) {
    libq_log(kModCommon, kLogError, "copy file err!\n");
    return false;
  }
  return true;
}

// Set by each load_cert_file: its failure came from an allocation. The
// initial-exec model keeps the dynamic loader's __tls_get_addr (and with
// it ld-linux) out of the library's NEEDED list; one byte of static TLS
// fits the surplus glibc keeps even for a library loaded by dlopen.
__attribute__((tls_model("initial-exec"))) thread_local bool t_load_out_of_memory = false;

// Empties the error queue; true when it held an allocation failure.
bool clear_error_noting_memory() {
  bool memory = false;
  while (unsigned long e = ERR_get_error()) {
    if (ERR_GET_REASON(e) == ERR_R_MALLOC_FAILURE) memory = true;
  }
  return memory;
}

}  // namespace

bool last_load_out_of_memory() { return t_load_out_of_memory; }

Format detect_format(const char *path) {
  UniqueFile file(path != nullptr ? fopen(path, "r") : nullptr);
  if (!file) return Format::kNone;
  char line[kLineRoom];
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    if (strstr(line, "BEGIN") != nullptr) return Format::kPem;
  }
  return Format::kDer;
}

X509 *read_cert(BIO *bio, Format format) {
  X509 *x = nullptr;
  if (format == Format::kPem) x = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  if (format == Format::kDer) x = d2i_X509_bio(bio, nullptr);
  if (x == nullptr) t_load_out_of_memory = clear_error_noting_memory();
  return x;
}

EVP_PKEY *read_key(BIO *bio, Format format) {
  EVP_PKEY *key = nullptr;
  if (format == Format::kPem) key = PEM_read_bio_PrivateKey(bio, nullptr, password_cb, nullptr);
  if (format == Format::kDer) key = d2i_PrivateKey_bio(bio, nullptr);
  if (key == nullptr) ERR_clear_error();
  return key;
}

X509 *load_cert_file(const char *path, BioPtr *bio, const char *open_failed,
                     const char *load_failed, Format *format_out) {
  t_load_out_of_memory = false;
  bio->reset(path != nullptr ? BIO_new_file(path, "r") : nullptr);
  if (!*bio) {
    t_load_out_of_memory = clear_error_noting_memory();
    libq_log(kModCommon, kLogError, "%s", open_failed);
    return nullptr;
  }
  Format format = detect_format(path);
  if (format_out != nullptr) *format_out = format;
  X509 *x = read_cert(bio->get(), format);
  if (x == nullptr) libq_log(kModCommon, kLogError, "%s", load_failed);
  return x;
}

unsigned long hash_cert_file(const char *path) {
  if (path != nullptr && dl_path_is_directory(path) == 1) {
    libq_log(kModCommon, kLogNotice, "path is directory, ret\n");
    return 0;
  }
  BioPtr bio;
  Format format = Format::kNone;
  X509Ptr x(load_cert_file(path, &bio, "Bio_new_file error ca_file\n",
                           "unable to load certificate ca_file\n", &format));
  if (!x) return 0;
  if (format == Format::kDer && !rewrite_as_pem(path, x.get())) return 0;
  return X509_subject_name_hash(x.get());
}

}  // namespace cert
}  // namespace quarry

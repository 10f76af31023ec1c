// cert/: the trusted CA store, the device certificate, certificate checks
// and key, request and client-certificate generation. The C entry points
// are declared in quarry.h and quarry_internal.h; this header holds what
// the files of this folder share.
#ifndef QUARRY_CERT_CERT_H
#define QUARRY_CERT_CERT_H

#include <dirent.h>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <stddef.h>
#include <stdint.h>

#include <memory>

namespace quarry {
namespace cert {

struct X509Free {
  void operator()(X509 *x) const noexcept { X509_free(x); }
};
struct BioFree {
  void operator()(BIO *b) const noexcept { BIO_free(b); }
};
struct PkeyFree {
  void operator()(EVP_PKEY *k) const noexcept { EVP_PKEY_free(k); }
};
struct ReqFree {
  void operator()(X509_REQ *r) const noexcept { X509_REQ_free(r); }
};
struct NameFree {
  void operator()(X509_NAME *n) const noexcept { X509_NAME_free(n); }
};
struct StoreFree {
  void operator()(X509_STORE *s) const noexcept { X509_STORE_free(s); }
};
struct StoreCtxFree {
  void operator()(X509_STORE_CTX *c) const noexcept { X509_STORE_CTX_free(c); }
};
struct SslCtxFree {
  void operator()(SSL_CTX *c) const noexcept { SSL_CTX_free(c); }
};
struct DirClose {
  void operator()(DIR *d) const noexcept { closedir(d); }
};
struct OpensslFree {
  void operator()(char *p) const noexcept { OPENSSL_free(p); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using ReqPtr = std::unique_ptr<X509_REQ, ReqFree>;
using NamePtr = std::unique_ptr<X509_NAME, NameFree>;
using StorePtr = std::unique_ptr<X509_STORE, StoreFree>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, StoreCtxFree>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;
using DirPtr = std::unique_ptr<DIR, DirClose>;
using OpensslText = std::unique_ptr<char, OpensslFree>;

// Room for every path this folder builds: a 512-byte setting plus an entry
// name or a hash name, with margin.
constexpr size_t kPathRoom = 1024;
// The text fields of the information records.
constexpr size_t kFieldRoom = 64;

// ---- load.cc: format detection and loading

enum class Format { kNone, kPem, kDer };

// PEM when a line (read in pieces of up to 1024 bytes) holds "BEGIN", DER
// when none does, kNone when the file cannot be opened.
Format detect_format(const char *path);

// The certificate at the BIO's position in |format|; null when none.
X509 *read_cert(BIO *bio, Format format);
// The private key at the BIO's position (PEM keys through password_cb);
// null when none.
EVP_PKEY *read_key(BIO *bio, Format format);

// Opens |path| into |*bio| and loads its certificate in the detected
// format, logging |open_failed| or |load_failed| (level 3) when that
// fails. The BIO is left after the certificate; |format_out|, when given,
// receives the format.
X509 *load_cert_file(const char *path, BioPtr *bio, const char *open_failed,
                     const char *load_failed, Format *format_out = nullptr);

// Whether the last load_cert_file of this thread failed because memory
// ran out rather than because the file holds no certificate.
bool last_load_out_of_memory();

// The subject-name hash of the certificate file |path|, rewriting a DER
// file as PEM in place; 0 (after its log line) when it is a directory or
// no certificate can be read.
unsigned long hash_cert_file(const char *path);

// ---- time_text.cc

// Writes the ASN.1 time of |type| (V_ASN1_UTCTIME or
// V_ASN1_GENERALIZEDTIME) with content |data|/|len| as "Mon dd hh:mm:ss
// yyyy[ GMT]" into |out|. Returns false, with |out| empty, for anything
// else.
bool time_text(int type, const unsigned char *data, size_t len, char *out, size_t out_len);
// The same for an ASN1_TIME, logging "Bad time value\n" when it is not one.
void asn1_time_text(const ASN1_TIME *t, char *out, size_t out_len);

// ---- name_text.cc

// Copies into |out| (|out_len| bytes, terminated) the text after the
// first |key| ("/CN=") in |oneline| up to the next '/'. False when |key|
// is missing.
bool name_value(const char *oneline, const char *key, char *out, size_t out_len);
// The short name of a one-line name: the value of its first CN, else OU,
// else O. Empty when it has none.
void short_name(const char *oneline, char *out, size_t out_len);
// The one-line form of |name| (caller frees), null when there is none.
char *name_oneline(const X509_NAME *name);

// ---- fs.cc: directory work with system calls, never a shell

// Formats into |out| (kPathRoom); false when it does not fit, and then no
// file operation may use it.
bool path_printf(char *out, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// Opens |dir|, creating it (one level, mode 0777 less the umask) when it
// cannot be opened. Null when both fail.
DIR *open_or_make_dir(const char *dir);
// The trust directory setting, copied under the lock (kPathRoom room).
void read_trust_dir(char *out);
// Whether a directory entry name is a stored certificate (".0" anywhere).
bool is_cert_entry(const char *name);

// ---- pair_check.cc

// Where a certificate-and-key file failed its trial in a TLS context.
enum class PairCheck { kOk, kContext, kCaFile, kCertificate, kKey, kMismatch };

// Tries the PEM file |path| (NULL fails as unreadable) as CA file,
// certificate and private key (through password_cb) of a new context of
// protocol selector |method| (0..5), and checks that key and certificate
// match. Logs the failing step.
PairCheck check_pair(const char *path, uint32_t method);

// ---- det_rand.cc

constexpr size_t kCommonNameRoom = 512;

// The raw text after the first "CN=" of |subject| up to the next '/',
// zero-filled to kCommonNameRoom bytes in |out|.
void subject_common_name(const char *subject, char *out);

// Makes a key of |bits| from the generator seeded with cert_gen_param and
// the common name of |subject|, or reads the one in |key_path|. Returns 0
// with the key, or -1 after "dl_cert_build_rsa_key() fail\n".
int deterministic_key(const char *key_path, const char *subject, int bits, EVP_PKEY **key_out,
                      int *existed_out);

// ---- keygen.cc

// A new file at |path| (an old one is deleted first) readable by its
// owner only, for private keys. Null when it cannot be made.
BIO *new_private_file(const char *path);

// Writes |x| then |key| as PEM into |out|, skipping a null one, and
// flushes. False when |out| is null or a step failed; the caller removes
// what it made.
bool write_pem(BIO *out, X509 *x, EVP_PKEY *key);

}  // namespace cert
}  // namespace quarry

#endif  // QUARRY_CERT_CERT_H

// Subject strings of the key-generation screens: "/type=value/...", types
// as OpenSSL short or long names, a backslash taking the next character
// literally. The parser's complaints were never shown to anyone, so only
// the null result tells the caller.
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <string.h>

#include "cert/cert.h"
#include "core/core.h"
#include "util/util.h"

namespace quarry {
namespace cert {

namespace {

enum class Scan { kStop, kEnd, kBadEscape };

// Copies from |*sp| into |*bp| up to |stop| (consumed) or the end of the
// string, taking escaped characters literally.
Scan scan_until(const char **sp, char **bp, char stop) {
  const char *s = *sp;
  char *b = *bp;
  Scan result = Scan::kEnd;
  while (*s != '\0') {
    if (*s == '\\') {
      if (s[1] == '\0') {
        result = Scan::kBadEscape;
        break;
      }
      *b++ = s[1];
      s += 2;
    } else if (*s == stop) {
      ++s;
      result = Scan::kStop;
      break;
    } else {
      *b++ = *s++;
    }
  }
  *b++ = '\0';
  *sp = s;
  *bp = b;
  return result;
}

// Adds one element; false when OpenSSL refuses it. Unknown types and
// empty values are skipped.
bool add_element(X509_NAME *name, const char *type, const char *value, unsigned long chtype) {
  int nid = OBJ_txt2nid(type);
  if (nid == NID_undef || value[0] == '\0') return true;
  return X509_NAME_add_entry_by_NID(name, nid, static_cast<int>(chtype),
                                    reinterpret_cast<const unsigned char *>(value), -1, -1, 0) == 1;
}

}  // namespace

}  // namespace cert
}  // namespace quarry

using namespace quarry;
using namespace quarry::cert;

extern "C" {

DL_EXPORT X509_NAME *do_subject(const char *subject, unsigned long chtype) {
  if (subject == nullptr || subject[0] != '/') return nullptr;
  // Unescaping only shortens, so one copy of the string's size holds all
  // types and values.
  UniqueMalloc<char> buf(static_cast<char *>(malloc(strlen(subject) + 1)));
  NamePtr name(X509_NAME_new());
  if (!buf || !name) return nullptr;
  const char *sp = subject + 1;
  while (*sp != '\0') {
    char *bp = buf.get();
    const char *type = bp;
    Scan typed = scan_until(&sp, &bp, '=');
    if (typed != Scan::kStop) return nullptr;
    const char *value = bp;
    if (scan_until(&sp, &bp, '/') == Scan::kBadEscape) return nullptr;
    if (!add_element(name.get(), type, value, chtype)) return nullptr;
  }
  return name.release();
}

DL_EXPORT int build_subject(X509_REQ *req, const char *subject, unsigned long chtype) {
  NamePtr name(do_subject(subject, chtype));
  if (!name || req == nullptr) return 0;
  return X509_REQ_set_subject_name(req, name.get()) == 1 ? 1 : 0;
}

DL_EXPORT int make_REQ(X509_REQ *req, EVP_PKEY *key, const char *subject, int unused,
                       unsigned long chtype) {
  (void)unused;
  if (req == nullptr || key == nullptr) return 0;
  if (X509_REQ_set_version(req, 0) != 1) return 0;
  if (build_subject(req, subject, chtype) != 1) return 0;
  return X509_REQ_set_pubkey(req, key) == 1 ? 1 : 0;
}

}  // extern "C"

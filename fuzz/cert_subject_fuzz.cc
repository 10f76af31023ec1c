// libFuzzer target for the subject parsers: the input is a subject string
// for do_subject ("/type=value/..."); a name it makes is rendered one line
// and read back by the record helpers (common name, organisation, short
// name), which must stay within their 64-byte fields.
#include <openssl/x509.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "cert/cert.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace {

void check_field(const char *oneline, const char *key) {
  char field[64];
  memset(field, 'x', sizeof field);
  quarry::cert::name_value(oneline, key, field, sizeof field);
  if (strnlen(field, sizeof field) == sizeof field) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The parser takes zero-terminated text; an embedded zero just ends it.
  std::string subject(reinterpret_cast<const char *>(data), size);
  X509_NAME *name = do_subject(subject.c_str(), MBSTRING_UTF8);
  // The raw input also stands in for a one-line name.
  check_field(subject.c_str(), "/CN=");
  char short_name[64];
  quarry::cert::short_name(subject.c_str(), short_name, sizeof short_name);
  if (strnlen(short_name, sizeof short_name) == sizeof short_name) abort();
  if (name == nullptr) return 0;
  char *line = X509_NAME_oneline(name, nullptr, 0);
  if (line != nullptr) {
    check_field(line, "/CN=");
    check_field(line, "/O=");
    quarry::cert::short_name(line, short_name, sizeof short_name);
    if (strnlen(short_name, sizeof short_name) == sizeof short_name) abort();
    OPENSSL_free(line);
  }
  X509_REQ *req = X509_REQ_new();
  if (req != nullptr) {
    build_subject(req, subject.c_str(), MBSTRING_UTF8);
    X509_REQ_free(req);
  }
  X509_NAME_free(name);
  return 0;
}

// Values out of a certificate name's one-line form ("/C=DE/O=Org/CN=Name").
// Values are taken up to the next '/', as the phone has always shown them,
// and cut to the room of the record field.
#include <string.h>

#include "cert/cert.h"

namespace quarry {
namespace cert {

namespace {

// Copies |src| up to '/' or its end into |out|, cut to fit.
void copy_to_slash(const char *src, char *out, size_t out_len) {
  size_t n = strcspn(src, "/");
  if (n >= out_len) n = out_len - 1;
  memcpy(out, src, n);
  out[n] = '\0';
}

}  // namespace

bool name_value(const char *oneline, const char *key, char *out, size_t out_len) {
  if (out == nullptr || out_len == 0) return false;
  out[0] = '\0';
  if (oneline == nullptr || key == nullptr) return false;
  const char *at = strstr(oneline, key);
  if (at == nullptr) return false;
  copy_to_slash(at + strlen(key), out, out_len);
  return true;
}

void short_name(const char *oneline, char *out, size_t out_len) {
  if (out == nullptr || out_len == 0) return;
  out[0] = '\0';
  if (oneline == nullptr) return;
  static const char *const kKeys[] = {"/CN=", "/OU=", "/O="};
  for (const char *key : kKeys) {
    if (name_value(oneline, key, out, out_len)) return;
  }
}

char *name_oneline(const X509_NAME *name) {
  if (name == nullptr) return nullptr;
  return X509_NAME_oneline(name, nullptr, 0);
}

}  // namespace cert
}  // namespace quarry

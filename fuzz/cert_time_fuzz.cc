// libFuzzer target for the certificate time text: the first byte picks
// the ASN.1 type (UTCTime, GeneralizedTime or another), the rest is the
// time's content. The text must be empty or a bounded, terminated line
// of at least "Mon dd hh:mm:ss y".
#include <openssl/asn1.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "cert/cert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  static const int kTypes[] = {V_ASN1_UTCTIME, V_ASN1_GENERALIZEDTIME, V_ASN1_OCTET_STRING};
  int type = kTypes[data[0] % 3];
  char out[64];
  memset(out, 'x', sizeof out);
  bool ok = quarry::cert::time_text(type, data + 1, size - 1, out, sizeof out);
  size_t len = strnlen(out, sizeof out);
  if (len == sizeof out) abort();
  if (!ok && len != 0) abort();
  if (ok && (len < 17 || type == V_ASN1_OCTET_STRING)) abort();
  // A small room cuts the text but still terminates it.
  char small[5];
  quarry::cert::time_text(type, data + 1, size - 1, small, sizeof small);
  if (strnlen(small, sizeof small) == sizeof small) abort();
  return 0;
}

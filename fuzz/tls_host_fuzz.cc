// libFuzzer target for the TLS host-name check. The input is lines: the
// host, the subject's common name ("-" for none), then alternative names,
// each a kind byte ('D' DNS, 'I' address, other: e-mail) and its raw bytes,
// zero bytes included.
#include <openssl/x509v3.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tls/tls.h"

namespace {

std::vector<std::string> lines_of(const uint8_t *data, size_t size) {
  std::vector<std::string> lines(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\n') {
      lines.emplace_back();
    } else {
      lines.back().push_back(static_cast<char>(data[i]));
    }
  }
  return lines;
}

void add_alt_names(X509 *cert, const std::vector<std::string> &lines) {
  GENERAL_NAMES *names = GENERAL_NAMES_new();
  for (size_t i = 2; i < lines.size(); ++i) {
    if (lines[i].empty()) continue;
    const std::string value = lines[i].substr(1);
    ASN1_STRING *text = ASN1_STRING_type_new(lines[i][0] == 'I' ? V_ASN1_OCTET_STRING
                                                                : V_ASN1_IA5STRING);
    ASN1_STRING_set(text, value.data(), static_cast<int>(value.size()));
    GENERAL_NAME *name = GENERAL_NAME_new();
    int type = lines[i][0] == 'D' ? GEN_DNS : lines[i][0] == 'I' ? GEN_IPADD : GEN_EMAIL;
    GENERAL_NAME_set0_value(name, type, text);
    sk_GENERAL_NAME_push(names, name);
  }
  if (sk_GENERAL_NAME_num(names) > 0) {
    X509_add1_ext_i2d(cert, NID_subject_alt_name, names, 0, X509V3_ADD_DEFAULT);
  }
  GENERAL_NAMES_free(names);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<std::string> lines = lines_of(data, size);
  std::string host = lines[0].c_str();  // the library gets C text
  quarry::UniqueX509 cert(X509_new());
  if (lines.size() > 1 && lines[1] != "-") {
    X509_NAME_add_entry_by_NID(X509_get_subject_name(cert.get()), NID_commonName,
                               V_ASN1_IA5STRING,
                               reinterpret_cast<const unsigned char *>(lines[1].data()),
                               static_cast<int>(lines[1].size()), -1, 0);
  }
  add_alt_names(cert.get(), lines);
  quarry::tls_host_matches(cert.get(), host.c_str());
  quarry::tls_host_is_address(host.c_str());
  return 0;
}

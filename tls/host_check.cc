// Whether the server's certificate names the host the caller asked for:
// subject alternative names first (RFC 6125 section 6.4 in the simple
// form the phone has always used: whole-name match, or a "*." entry that
// stands for exactly the first label), then the subject's common name.
#include <arpa/inet.h>
#include <ctype.h>
#include <string.h>
#include <strings.h>

#include "core/core.h"
#include "tls/tls.h"

namespace {

constexpr size_t kCommonNameRoom = 256;
constexpr size_t kIpv4Bytes = 4;
constexpr size_t kIpv6Bytes = 16;
// Room for the text between brackets; anything longer is no IPv6 literal.
constexpr size_t kBracketRoom = 64;

enum class HostKind { kName, kIpv4, kIpv6 };

struct Host {
  const char *text;
  size_t length;
  HostKind kind;
  unsigned char address[kIpv6Bytes];
};

Host classify(const char *text) {
  Host host = {text, strlen(text), HostKind::kName, {}};
  const char *close = text[0] == '[' ? strchr(text, ']') : nullptr;
  if (close != nullptr) {
    size_t n = static_cast<size_t>(close - text - 1);
    char inner[kBracketRoom];
    if (n < sizeof inner) {
      memcpy(inner, text + 1, n);
      inner[n] = '\0';
      if (inet_pton(AF_INET6, inner, host.address) == 1) host.kind = HostKind::kIpv6;
    }
    return host;
  }
  if (strchr(text, ':') != nullptr) {
    if (inet_pton(AF_INET6, text, host.address) == 1) host.kind = HostKind::kIpv6;
    return host;
  }
  const char *last_dot = strrchr(text, '.');
  in_addr v4;
  if (last_dot != nullptr && isdigit(static_cast<unsigned char>(last_dot[1])) &&
      inet_aton(text, &v4) != 0) {
    memcpy(host.address, &v4, kIpv4Bytes);
    host.kind = HostKind::kIpv4;
  }
  return host;
}

// "*.x.y" against the host's part from its first dot: the wildcard stands
// for the first label only. |pattern| holds |length| bytes.
bool wildcard_matches(const char *pattern, size_t length, const Host &host) {
  const char *tail = strchr(host.text, '.');
  if (tail == nullptr || length < 2 || pattern[0] != '*' || pattern[1] != '.') return false;
  size_t tail_length = host.length - static_cast<size_t>(tail - host.text);
  return length - 1 == tail_length && strncasecmp(tail, pattern + 1, tail_length) == 0;
}

// Compared with strncasecmp over the host's length, an entry with a zero
// byte inside cannot match: the host has none.
bool dns_name_matches(const ASN1_IA5STRING *entry, const Host &host) {
  const char *data = reinterpret_cast<const char *>(ASN1_STRING_get0_data(entry));
  int length = ASN1_STRING_length(entry);
  if (data == nullptr || length <= 0) return false;
  size_t n = static_cast<size_t>(length);
  if (n == host.length && strncasecmp(data, host.text, n) == 0) return true;
  return wildcard_matches(data, n, host);
}

bool address_matches(const ASN1_OCTET_STRING *entry, const Host &host) {
  size_t want = host.kind == HostKind::kIpv6 ? kIpv6Bytes : kIpv4Bytes;
  return static_cast<size_t>(ASN1_STRING_length(entry)) == want &&
         memcmp(ASN1_STRING_get0_data(entry), host.address, want) == 0;
}

bool alt_name_matches(X509 *cert, const Host &host) {
  int index = X509_get_ext_by_NID(cert, NID_subject_alt_name, -1);
  if (index < 0) return false;
  quarry::UniqueGeneralNames names(
      static_cast<GENERAL_NAMES *>(X509V3_EXT_d2i(X509_get_ext(cert, index))));
  if (!names) return false;
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME *name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type == GEN_DNS && host.kind == HostKind::kName) {
      if (dns_name_matches(name->d.dNSName, host)) return true;
    } else if (name->type == GEN_IPADD && host.kind != HostKind::kName) {
      if (address_matches(name->d.iPAddress, host)) return true;
    }
  }
  return false;
}

bool common_name_matches(X509 *cert, const Host &host) {
  char name[kCommonNameRoom] = {};
  int length = X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, name,
                                         sizeof name);
  if (length < 0) {
    libq_log(quarry::kModCommon, quarry::kLogError,
             "TLS: unable to get common name from peer certificate.\n");
    return false;
  }
  // A zero byte inside the name would cut the comparison short and let
  // "host\0.attacker.example" pass for "host".
  if (strlen(name) != static_cast<size_t>(length)) return false;
  if (strcasecmp(name, host.text) == 0) return true;
  return wildcard_matches(name, strlen(name), host);
}

}  // namespace

namespace quarry {

bool tls_host_is_address(const char *host) {
  unsigned char address[kIpv6Bytes];
  return inet_pton(AF_INET, host, address) == 1 || inet_pton(AF_INET6, host, address) == 1;
}

bool tls_host_matches(X509 *cert, const char *text) {
  if (cert == nullptr || text == nullptr) return false;
  const Host host = classify(text);
  if (alt_name_matches(cert, host)) return true;
  // The common name is compared as text, also for an address.
  return common_name_matches(cert, host);
}

}  // namespace quarry

// The host-name check against certificates made here: alternative names
// of each kind, the one-label wildcard, addresses, and the common name.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <string>

#include "core/core.h"
#include "tests/support/log_capture.h"
#include "tls/tls.h"

namespace {

using quarry::UniqueX509;
using quarry_test::LogCapture;

// A certificate with subject CN |cn| (none when empty) and the
// subjectAltName |san| in openssl's config syntax (none when empty).
UniqueX509 make_cert(const std::string &cn, const std::string &san) {
  UniqueX509 cert(X509_new());
  X509_NAME *name = X509_get_subject_name(cert.get());
  if (!cn.empty()) {
    X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(cn.data()),
                               static_cast<int>(cn.size()), -1, 0);
  } else {
    X509_NAME_add_entry_by_NID(name, NID_organizationName, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("phone"), -1, -1, 0);
  }
  if (!san.empty()) {
    X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, san.c_str());
    EXPECT_NE(ext, nullptr) << san;
    if (ext != nullptr) {
      X509_add_ext(cert.get(), ext, -1);
      X509_EXTENSION_free(ext);
    }
  }
  return cert;
}

// A certificate whose only alternative name is a DNS entry of exactly
// these bytes.
UniqueX509 cert_with_dns_bytes(const unsigned char *bytes, int length) {
  UniqueX509 cert(X509_new());
  GENERAL_NAMES *names = GENERAL_NAMES_new();
  GENERAL_NAME *name = GENERAL_NAME_new();
  ASN1_IA5STRING *text = ASN1_IA5STRING_new();
  if (length > 0) ASN1_STRING_set(text, bytes, length);
  GENERAL_NAME_set0_value(name, GEN_DNS, text);
  sk_GENERAL_NAME_push(names, name);
  X509_add1_ext_i2d(cert.get(), NID_subject_alt_name, names, 0, X509V3_ADD_DEFAULT);
  GENERAL_NAMES_free(names);
  return cert;
}

class HostCheck : public ::testing::Test {
 protected:
  void SetUp() override { dl_config_init(); }
  void TearDown() override { dl_exit(); }
  bool matches(const std::string &cn, const std::string &san, const char *host) {
    UniqueX509 cert = make_cert(cn, san);
    return quarry::tls_host_matches(cert.get(), host);
  }
};

TEST_F(HostCheck, DnsNameMatchesWholeHostIgnoringCase) {
  EXPECT_TRUE(matches("other", "DNS:phone.example.com", "phone.example.com"));
  EXPECT_TRUE(matches("other", "DNS:Phone.Example.COM", "phone.EXAMPLE.com"));
  EXPECT_FALSE(matches("other", "DNS:phone.example.com", "phone.example.co"));
  EXPECT_FALSE(matches("other", "DNS:phone.example.co", "phone.example.com"));
}

TEST_F(HostCheck, WildcardStandsForExactlyTheFirstLabel) {
  EXPECT_TRUE(matches("other", "DNS:*.x.y", "a.x.y"));
  EXPECT_TRUE(matches("other", "DNS:*.X.Y", "A.x.y"));
  EXPECT_FALSE(matches("other", "DNS:*.x.y", "x.y"));
  EXPECT_FALSE(matches("other", "DNS:*.x.y", "b.a.x.y"));
  EXPECT_FALSE(matches("other", "DNS:*.x.y", "axy"));
}

TEST_F(HostCheck, LaterEntryMatchesAfterOthersFail) {
  EXPECT_TRUE(matches("other", "DNS:first.test,email:a@b.test,DNS:second.test", "second.test"));
}

TEST_F(HostCheck, Ipv4LiteralMatchesItsFourBytesAndIgnoresDnsNames) {
  EXPECT_TRUE(matches("other", "DNS:localhost,IP:127.0.0.1", "127.0.0.1"));
  EXPECT_FALSE(matches("other", "IP:127.0.0.2", "127.0.0.1"));
  // A DNS entry spelling the address is no address entry.
  EXPECT_FALSE(matches("other", "DNS:127.0.0.1", "127.0.0.1"));
}

TEST_F(HostCheck, Ipv4LiteralFallsBackToTheCommonNameAsText) {
  EXPECT_TRUE(matches("127.0.0.1", "DNS:127.0.0.1", "127.0.0.1"));
  EXPECT_FALSE(matches("localhost", "DNS:localhost", "127.0.0.1"));
}

TEST_F(HostCheck, Ipv6LiteralWithAndWithoutBrackets) {
  EXPECT_TRUE(matches("other", "IP:::1", "::1"));
  EXPECT_TRUE(matches("other", "IP:::1", "[::1]"));
  EXPECT_FALSE(matches("other", "IP:::2", "[::1]"));
  // Four bytes are no IPv6 address, sixteen no IPv4 one.
  EXPECT_FALSE(matches("other", "IP:0.0.0.0", "::"));
  EXPECT_FALSE(matches("other", "IP:::7f00:1", "127.0.0.1"));
}

TEST_F(HostCheck, AddressEntriesDoNotMatchNames) {
  EXPECT_FALSE(matches("other", "IP:127.0.0.1", "localhost"));
}

TEST_F(HostCheck, BracketsWithoutAnAddressMakeAName) {
  EXPECT_TRUE(matches("[nothing]", "IP:::1", "[nothing]"));
}

TEST_F(HostCheck, DottedNameEndingInLettersIsAName) {
  EXPECT_TRUE(matches("other", "DNS:1.2.3.x", "1.2.3.x"));
}

TEST_F(HostCheck, CommonNameWhenNoAlternativeNames) {
  EXPECT_TRUE(matches("Phone.Test", "", "phone.test"));
  EXPECT_FALSE(matches("phone.test", "", "phone.tes"));
}

TEST_F(HostCheck, CommonNameWhenNoAlternativeNameMatched) {
  EXPECT_TRUE(matches("phone.test", "DNS:other.test", "phone.test"));
}

TEST_F(HostCheck, CommonNameWildcardTakesOneLabel) {
  EXPECT_TRUE(matches("*.x.y", "", "a.x.y"));
  EXPECT_FALSE(matches("*.x.y", "", "x.y"));
  EXPECT_FALSE(matches("*.x.y", "", "b.a.x.y"));
}

TEST_F(HostCheck, MissingCommonNameIsLoggedAndFails) {
  LogCapture log;
  EXPECT_FALSE(matches("", "DNS:other.test", "phone.test"));
  EXPECT_TRUE(log.has(2, 3, "TLS: unable to get common name from peer certificate.\n"))
      << log.text();
}

TEST_F(HostCheck, CommonNameWithAZeroByteMatchesNothing) {
  UniqueX509 cert(X509_new());
  static const unsigned char kName[] = {'p', 'h', 'o', 'n', 'e', 0, '.', 'e', 'v', 'i', 'l'};
  X509_NAME_add_entry_by_NID(X509_get_subject_name(cert.get()), NID_commonName, V_ASN1_IA5STRING,
                             kName, sizeof kName, -1, 0);
  EXPECT_FALSE(quarry::tls_host_matches(cert.get(), "phone"));
}

TEST_F(HostCheck, DnsEntryWithAZeroByteMatchesNothing) {
  static const unsigned char kEntry[] = {'p', 'h', 'o', 'n', 0};
  UniqueX509 cert = cert_with_dns_bytes(kEntry, sizeof kEntry);
  EXPECT_FALSE(quarry::tls_host_matches(cert.get(), "phon"));
  EXPECT_FALSE(quarry::tls_host_matches(cert.get(), "phon\x01"));
}

TEST_F(HostCheck, EmptyDnsEntryIsSkipped) {
  UniqueX509 cert = cert_with_dns_bytes(nullptr, 0);
  X509_NAME_add_entry_by_NID(X509_get_subject_name(cert.get()), NID_commonName, MBSTRING_ASC,
                             reinterpret_cast<const unsigned char *>("cn.test"), -1, -1, 0);
  EXPECT_FALSE(quarry::tls_host_matches(cert.get(), ""));
  EXPECT_TRUE(quarry::tls_host_matches(cert.get(), "cn.test"));
}

TEST_F(HostCheck, AddressLiteralsGetNoServerName) {
  EXPECT_TRUE(quarry::tls_host_is_address("127.0.0.1"));
  EXPECT_TRUE(quarry::tls_host_is_address("::1"));
  EXPECT_FALSE(quarry::tls_host_is_address("[::1]"));
  EXPECT_FALSE(quarry::tls_host_is_address("localhost"));
  EXPECT_FALSE(quarry::tls_host_is_address("127.1"));
}

}  // namespace

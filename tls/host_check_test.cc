// The host-name check against certificates made here: alternative names
// of each kind, the one-label wildcard, addresses, and the common name.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <string>
#include <vector>

#include "core/core.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_name.h"
#include "tls/tls.h"

namespace {

using quarry::UniqueX509;
using quarry_test::LogCapture;
using quarry_test::RowName;

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

// One host checked against a certificate with subject CN |cn| and the
// subjectAltName |san| (see make_cert).
struct MatchCheck {
  const char *cn;
  const char *san;
  const char *host;
  bool matches;
};

// One behaviour: its name and the checks that show it.
struct MatchCase {
  const char *name;
  std::vector<MatchCheck> checks;
};

const MatchCase kMatchCases[] = {
    {"DnsNameMatchesWholeHostIgnoringCase",
     {{"other", "DNS:phone.example.com", "phone.example.com", true},
      {"other", "DNS:Phone.Example.COM", "phone.EXAMPLE.com", true},
      {"other", "DNS:phone.example.com", "phone.example.co", false},
      {"other", "DNS:phone.example.co", "phone.example.com", false}}},
    {"WildcardStandsForExactlyTheFirstLabel",
     {{"other", "DNS:*.x.y", "a.x.y", true},
      {"other", "DNS:*.X.Y", "A.x.y", true},
      {"other", "DNS:*.x.y", "x.y", false},
      {"other", "DNS:*.x.y", "b.a.x.y", false},
      {"other", "DNS:*.x.y", "axy", false}}},
    {"LaterEntryMatchesAfterOthersFail",
     {{"other", "DNS:first.test,email:a@b.test,DNS:second.test", "second.test", true}}},
    {"Ipv4LiteralMatchesItsFourBytesAndIgnoresDnsNames",
     {{"other", "DNS:localhost,IP:127.0.0.1", "127.0.0.1", true},
      {"other", "IP:127.0.0.2", "127.0.0.1", false},
      // A DNS entry spelling the address is no address entry.
      {"other", "DNS:127.0.0.1", "127.0.0.1", false}}},
    {"Ipv4LiteralFallsBackToTheCommonNameAsText",
     {{"127.0.0.1", "DNS:127.0.0.1", "127.0.0.1", true},
      {"localhost", "DNS:localhost", "127.0.0.1", false}}},
    {"Ipv6LiteralWithAndWithoutBrackets",
     {{"other", "IP:::1", "::1", true},
      {"other", "IP:::1", "[::1]", true},
      {"other", "IP:::2", "[::1]", false},
      // Four bytes are no IPv6 address, sixteen no IPv4 one.
      {"other", "IP:0.0.0.0", "::", false},
      {"other", "IP:::7f00:1", "127.0.0.1", false}}},
    {"AddressEntriesDoNotMatchNames", {{"other", "IP:127.0.0.1", "localhost", false}}},
    {"BracketsWithoutAnAddressMakeAName", {{"[nothing]", "IP:::1", "[nothing]", true}}},
    {"DottedNameEndingInLettersIsAName", {{"other", "DNS:1.2.3.x", "1.2.3.x", true}}},
    {"CommonNameWhenNoAlternativeNames",
     {{"Phone.Test", "", "phone.test", true}, {"phone.test", "", "phone.tes", false}}},
    {"CommonNameWhenNoAlternativeNameMatched",
     {{"phone.test", "DNS:other.test", "phone.test", true}}},
    {"CommonNameWildcardTakesOneLabel",
     {{"*.x.y", "", "a.x.y", true}, {"*.x.y", "", "x.y", false}, {"*.x.y", "", "b.a.x.y", false}}},
};

class HostMatch : public HostCheck, public ::testing::WithParamInterface<MatchCase> {};

TEST_P(HostMatch, Checks) {
  for (const MatchCheck &check : GetParam().checks) {
    SCOPED_TRACE(std::string("cn ") + check.cn + ", san " + check.san + ", host " + check.host);
    EXPECT_EQ(matches(check.cn, check.san, check.host), check.matches);
  }
}

INSTANTIATE_TEST_SUITE_P(Names, HostMatch, ::testing::ValuesIn(kMatchCases), RowName());

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
  const struct {
    const char *host;
    bool is_address;
  } kHosts[] = {
      {"127.0.0.1", true}, {"::1", true}, {"[::1]", false}, {"localhost", false}, {"127.1", false},
  };
  for (const auto &row : kHosts) {
    SCOPED_TRACE(row.host);
    EXPECT_EQ(quarry::tls_host_is_address(row.host), row.is_address);
  }
}

}  // namespace

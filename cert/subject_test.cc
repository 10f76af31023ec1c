// Subject strings into names and requests.
#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "cert/cert_test_support.h"
#include "quarry_internal.h"

namespace {

struct NameFree {
  void operator()(X509_NAME *n) const { X509_NAME_free(n); }
};
using Name = std::unique_ptr<X509_NAME, NameFree>;

// The name in RFC 2253 order reversed, as "openssl -subject" shows it.
std::string show(const char *subject) {
  Name name(do_subject(subject, MBSTRING_UTF8));
  if (!name) return "NULL";
  char *line = X509_NAME_oneline(name.get(), nullptr, 0);
  std::string out = line;
  OPENSSL_free(line);
  return out;
}

TEST(CertSubject, TypesAndValuesInOrder) {
  EXPECT_EQ(show("/C=DE/O=Org/CN=Phone 1"), "/C=DE/O=Org/CN=Phone 1");
}

TEST(CertSubject, LongNamesAreAccepted) {
  EXPECT_EQ(show("/commonName=x/organizationName=y"), "/CN=x/O=y");
}

TEST(CertSubject, BackslashTakesNextCharacterLiterally) {
  Name name(do_subject("/CN=a\\/b/O=c\\=d\\\\", MBSTRING_UTF8));
  ASSERT_TRUE(name);
  char cn[64], o[64];
  X509_NAME_get_text_by_NID(name.get(), NID_commonName, cn, sizeof cn);
  X509_NAME_get_text_by_NID(name.get(), NID_organizationName, o, sizeof o);
  EXPECT_STREQ(cn, "a/b");
  EXPECT_STREQ(o, "c=d\\");
}

TEST(CertSubject, MustStartWithSlash) { EXPECT_EQ(show("CN=x"), "NULL"); }

TEST(CertSubject, SlashAloneGivesEmptyName) {
  Name name(do_subject("/", MBSTRING_UTF8));
  ASSERT_TRUE(name);
  EXPECT_EQ(X509_NAME_entry_count(name.get()), 0);
}

TEST(CertSubject, EscapeAtEndIsRefused) {
  EXPECT_EQ(show("/CN=abc\\"), "NULL");
  EXPECT_EQ(show("/CN\\"), "NULL");
}

TEST(CertSubject, TypeWithoutEqualsIsRefused) {
  EXPECT_EQ(show("/CN"), "NULL");
  EXPECT_EQ(show("/CN=x/O"), "NULL");
}

TEST(CertSubject, UnknownTypesAndEmptyValuesAreSkipped) {
  EXPECT_EQ(show("/XYZZY=1/CN=/O=kept"), "/O=kept");
}

TEST(CertSubject, ValuesAreUtf8Strings) {
  Name name(do_subject("/CN=Gr\xc3\xbc\xc3\x9f" "e", MBSTRING_UTF8));
  ASSERT_TRUE(name);
  ASN1_STRING *value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name.get(), 0));
  EXPECT_EQ(ASN1_STRING_type(value), V_ASN1_UTF8STRING);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(value))),
            "Gr\xc3\xbc\xc3\x9f" "e");
}

TEST(CertSubject, OverlongValueIsRefused) {
  // OpenSSL bounds a common name to 64 characters.
  std::string subject = "/CN=" + std::string(65, 'x');
  EXPECT_EQ(show(subject.c_str()), "NULL");
}

TEST(CertSubject, NullIsRefused) { EXPECT_EQ(do_subject(nullptr, MBSTRING_UTF8), nullptr); }

TEST(CertSubject, MakeReqSetsVersionSubjectAndKey) {
  cert_test::Key key = cert_test::ec_key();
  X509_REQ *req = X509_REQ_new();
  ASSERT_EQ(make_REQ(req, key.get(), "/CN=phone/O=maker", 0, MBSTRING_UTF8), 1);
  EXPECT_EQ(X509_REQ_get_version(req), 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(req), key.get()), 1);
  char *line = X509_NAME_oneline(X509_REQ_get_subject_name(req), nullptr, 0);
  EXPECT_STREQ(line, "/CN=phone/O=maker");
  OPENSSL_free(line);
  EXPECT_EQ(build_subject(req, "bad", MBSTRING_UTF8), 0);
  EXPECT_EQ(make_REQ(req, key.get(), "/CN", 0, MBSTRING_UTF8), 0);
  X509_REQ_free(req);
}

}  // namespace

// Trusted CA store: install, delete, information records and listings.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "tests/acceptance/cert_pki.h"
#include "tests/support/log_capture.h"

namespace {

using cert_pki::hex8;
using cert_pki::logged;
using cert_pki::Pki;
using quarry_test::file_exists;
using quarry_test::read_file;

constexpr unsigned kCommon = 2;
constexpr int kNotice = 5;
constexpr int kInfo = 6;

class Store : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Pki::get().ok()); }
  // A copy of a PKI file in the test's directory (install may rewrite it).
  std::string copy(const std::string &name, const std::string &as = "") {
    return set_.dir().write(as.empty() ? name : as, read_file(Pki::get().file(name)));
  }
  const std::string &trust() const { return set_.trust(); }

  cert_pki::Settings set_;
  quarry_test::LogCapture log_;
};

TEST_F(Store, InstallStoresTheFileUnderItsHashWithBothLinks) {
  std::string src = copy("ca.pem");
  std::string h = hex8(Pki::hash_of(src));
  ASSERT_EQ(0, dl_install_ca(src.c_str())) << log_.text();
  EXPECT_TRUE(cert_pki::is_regular(trust() + h + ".0"));
  EXPECT_EQ(read_file(src), read_file(trust() + h + ".0"));
  ASSERT_TRUE(cert_pki::is_link(trust() + h));
  EXPECT_EQ(read_file(src), read_file(trust() + h));
  ASSERT_TRUE(cert_pki::is_link(trust() + "ca/" + h + ".0"));
  EXPECT_EQ(read_file(src), read_file(trust() + "ca/" + h + ".0"));
}

TEST_F(Store, InstallingADerFileLeavesPemAtTheSourceAndInTheStore) {
  std::string src = copy("leaf.der");
  std::string h = hex8(strtoul(Pki::x509(src, "subject_hash", "DER").c_str(), nullptr, 16));
  ASSERT_EQ(0, dl_install_ca(src.c_str())) << log_.text();
  EXPECT_TRUE(log_.has(kCommon, kInfo, "convert to PEM code\n")) << log_.text();
  EXPECT_EQ(0u, read_file(src).find("-----BEGIN CERTIFICATE-----"));
  EXPECT_EQ(Pki::x509(Pki::get().file("leaf.pem"), "fingerprint"), Pki::x509(src, "fingerprint"));
  EXPECT_EQ(0u, read_file(trust() + h + ".0").find("-----BEGIN CERTIFICATE-----"));
}

TEST_F(Store, AnEqualSubjectHashIsADuplicateEvenForAnotherCertificate) {
  ASSERT_EQ(0, dl_install_ca(copy("ca.pem").c_str()));
  log_.clear();
  std::string other = copy("same.pem");
  ASSERT_NE(Pki::x509(other, "fingerprint"), Pki::x509(Pki::get().file("ca.pem"), "fingerprint"));
  EXPECT_EQ(-2, dl_install_ca(other.c_str()));
  EXPECT_TRUE(logged(log_, "the ca file file has existed in custom certs directory\n"))
      << log_.text();
}

TEST_F(Store, AFactoryCertificateOfThatHashRefusesTheInstall) {
  std::string src = copy("ca.pem");
  std::string h = hex8(Pki::hash_of(src));
  ASSERT_EQ(0, mkdir(trust().c_str(), 0755));
  ASSERT_EQ(0, mkdir((trust() + "phoneca").c_str(), 0755));
  set_.dir().write("trust/phoneca/" + h + ".0", read_file(src));
  EXPECT_EQ(-3, dl_install_ca(src.c_str()));
  EXPECT_TRUE(logged(log_, "the ca file has existed by factory prefabrication\n")) << log_.text();
  EXPECT_FALSE(file_exists(trust() + h + ".0"));
}

TEST_F(Store, InstallOfAMissingFileFails) {
  EXPECT_EQ(-1, dl_install_ca(set_.dir().file("none.pem").c_str()));
  EXPECT_TRUE(logged(log_, "Bio_new_file error ca_file\n")) << log_.text();
}

TEST_F(Store, InstallOfANonCertificateFails) {
  std::string junk = set_.dir().write("junk.pem", "-----BEGIN CERTIFICATE-----\nxx\n");
  EXPECT_EQ(-1, dl_install_ca(junk.c_str()));
  EXPECT_TRUE(logged(log_, "unable to load certificate ca_file\n")) << log_.text();
}

TEST_F(Store, InstallOfADirectoryFails) {
  EXPECT_EQ(-1, dl_install_ca(set_.dir().path().c_str()));
  EXPECT_TRUE(log_.has(kCommon, kNotice, "path is directory, ret\n")) << log_.text();
}

TEST_F(Store, DeleteRemovesTheFileAndEveryNameOfItsHashButNotTheFactoryOne) {
  std::string src = copy("ca.pem");
  std::string h = hex8(Pki::hash_of(src));
  ASSERT_EQ(0, dl_install_ca(src.c_str()));
  set_.dir().write("trust/phoneca/" + h + ".0", read_file(src));
  log_.clear();
  EXPECT_EQ(0, dl_del_ca(src.c_str()));
  char line[32];
  snprintf(line, sizeof(line), "hash:%lx\n", Pki::hash_of(Pki::get().file("ca.pem")));
  EXPECT_TRUE(log_.has(kCommon, kInfo, line)) << log_.text();
  EXPECT_FALSE(file_exists(src));
  EXPECT_FALSE(cert_pki::is_regular(trust() + h + ".0"));
  EXPECT_FALSE(cert_pki::is_link(trust() + h));
  EXPECT_FALSE(cert_pki::is_link(trust() + "ca/" + h + ".0"));
  EXPECT_TRUE(file_exists(trust() + "phoneca/" + h + ".0"));
}

TEST_F(Store, DeleteOfAMissingFileReturnsZero) {
  EXPECT_EQ(0, dl_del_ca(set_.dir().file("none.pem").c_str()));
}

TEST_F(Store, InfoNamesCommonNameOrganisationExpiryAndHash) {
  std::string src = Pki::get().file("leaf.pem");
  dl_ca_info info;
  memset(&info, 'x', sizeof(info));
  ASSERT_EQ(0, dl_get_ca_info(src.c_str(), &info)) << log_.text();
  EXPECT_STREQ("leaf.example", info.cn);
  EXPECT_STREQ("Leaf Org", info.org);
  EXPECT_STREQ(Pki::x509(src, "enddate").c_str(), info.expiry);
  EXPECT_EQ(Pki::hash_of(src), info.hash);
}

TEST_F(Store, InfoReadsDerWithoutRewritingIt) {
  std::string src = copy("leaf.der");
  std::string before = read_file(src);
  dl_ca_info info;
  ASSERT_EQ(0, dl_get_ca_info(src.c_str(), &info));
  EXPECT_STREQ("leaf.example", info.cn);
  EXPECT_EQ(before, read_file(src));
}

TEST_F(Store, InfoFailures) {
  dl_ca_info info;
  EXPECT_EQ(-1, dl_get_ca_info(nullptr, &info));
  EXPECT_EQ(-1, dl_get_ca_info(Pki::get().file("ca.pem").c_str(), nullptr));
  EXPECT_TRUE(logged(log_, "Invalid Parameter\n"));
  EXPECT_EQ(-2, dl_get_ca_info(set_.dir().path().c_str(), &info));
  EXPECT_TRUE(log_.has(kCommon, kNotice, "path is directory, ret\n"));
  EXPECT_EQ(-2, dl_get_ca_info(set_.dir().file("none").c_str(), &info));
  EXPECT_TRUE(logged(log_, "Bio_new_file error filename\n")) << log_.text();
  EXPECT_EQ(-2, dl_get_ca_info(set_.dir().write("junk", "junk\n").c_str(), &info));
  EXPECT_TRUE(logged(log_, "unable to load certificate filename\n")) << log_.text();
}

TEST_F(Store, TrustListingNamesEveryInstalledCertificate) {
  ASSERT_EQ(0, dl_install_ca(copy("ca.pem").c_str()));
  ASSERT_EQ(0, dl_install_ca(copy("other.pem").c_str()));
  dl_ca_list list;
  memset(&list, 'x', sizeof(list));
  ASSERT_EQ(0, dl_get_trust_ca_info(&list));
  ASSERT_EQ(2u, list.count);
  std::string names[2] = {list.info[0].cn, list.info[1].cn};
  if (names[0] > names[1]) std::swap(names[0], names[1]);
  EXPECT_EQ("Acc Other CA", names[0]);
  EXPECT_EQ("Acc Root CA", names[1]);
  for (int i = 0; i < 2; ++i) {
    std::string expected = trust() + hex8(list.info[i].hash) + ".0";
    EXPECT_STREQ(expected.c_str(), list.info[i].path);
  }
}

TEST_F(Store, AnEleventhFileStopsTheListingAtTen) {
  ASSERT_EQ(0, mkdir(trust().c_str(), 0755));
  for (int i = 0; i < 11; ++i)
    set_.dir().write("trust/c" + std::to_string(i) + ".0", read_file(Pki::get().file("ca.pem")));
  dl_ca_list list;
  EXPECT_EQ(0, dl_get_trust_ca_info(&list));
  EXPECT_EQ(10u, list.count);
  EXPECT_TRUE(logged(log_, "number of ca file is no less than 10!\n")) << log_.text();
}

TEST_F(Store, AnUnreadableFileIsDeletedAndItsSlotReused) {
  ASSERT_EQ(0, dl_install_ca(copy("ca.pem").c_str()));
  set_.dir().write("trust/bad.0", "not a certificate\n");
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  ASSERT_EQ(0, chdir(trust().c_str()));  // the bare name is removed relative to here
  dl_ca_list list;
  int rc = dl_get_trust_ca_info(&list);
  ASSERT_EQ(0, chdir(cwd));
  EXPECT_EQ(0, rc);
  EXPECT_EQ(1u, list.count);
  EXPECT_STREQ("Acc Root CA", list.info[0].cn);
  EXPECT_FALSE(file_exists(trust() + "bad.0"));
}

TEST_F(Store, TrustListingFailures) {
  dl_ca_list list;
  EXPECT_EQ(-1, dl_get_trust_ca_info(nullptr));
  EXPECT_TRUE(logged(log_, "Invalid Parameter\n"));
  EXPECT_EQ(-2, dl_get_trust_ca_info(&list));  // the trust directory does not exist yet
}

TEST_F(Store, ExtendedInfoOfAFourByteSerial) {
  std::string src = Pki::get().file("leaf.pem");
  dl_ca_info_ex info;
  dl_cert_result result;
  memset(&result, 'x', sizeof(result));
  ASSERT_EQ(0, dl_get_ca_info_ex(src.c_str(), &info, 0, &result)) << log_.text();
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(1, info.version);  // "openssl ca" without extensions writes version 1
  EXPECT_STREQ("305419896 (0x12345678)", info.serial);
  EXPECT_STREQ("sha256WithRSAEncryption", info.sig_alg);
  EXPECT_STREQ("rsaEncryption", info.pubkey_alg);
  EXPECT_EQ(2048, info.pubkey_bits);
  EXPECT_STREQ("Acc Root CA", info.issuer);
  EXPECT_STREQ("leaf.example", info.subject);
  EXPECT_EQ(Pki::hash_of(src), info.hash);
  EXPECT_STREQ(Pki::x509(src, "startdate").c_str(), info.valid_from);
  EXPECT_STREQ(Pki::x509(src, "enddate").c_str(), info.valid_to);
  EXPECT_EQ(0, info.ext_count);
  EXPECT_STREQ("", info.privkey_alg);
}

TEST_F(Store, ExtendedInfoOfAFiveByteSerialAndUtcYears49And50) {
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(0, dl_get_ca_info_ex(Pki::get().file("wide.pem").c_str(), &info, 0, &result));
  EXPECT_STREQ("01:02:03:04:05 ", info.serial);
  EXPECT_STREQ("Jan  1 00:00:00 1950 GMT", info.valid_from);
  EXPECT_STREQ("Dec 31 23:59:59 2049 GMT", info.valid_to);
}

TEST_F(Store, ExtendedInfoCountsExtensionsOfASelfSignedCa) {
  std::string src = Pki::get().file("ca.pem");
  std::string text = cert_pki::run("openssl x509 -noout -ext subjectKeyIdentifier,"
                                   "authorityKeyIdentifier,basicConstraints -in '" + src + "'");
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(0, dl_get_ca_info_ex(src.c_str(), &info, 0, &result));
  EXPECT_EQ(3, info.version);
  EXPECT_EQ(3, info.ext_count) << text;
  EXPECT_STREQ("Acc Root CA", info.issuer);
}

TEST_F(Store, ExtendedIssuerFallsBackToTheUnit) {
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(0, dl_get_ca_info_ex(Pki::get().file("byou.pem").c_str(), &info, 0, &result));
  EXPECT_STREQ("Unit Only", info.issuer);
  EXPECT_STREQ("byou.example", info.subject);
}

TEST_F(Store, ExtendedInfoOfAClientFileNamesItsKey) {
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(0, dl_get_ca_info_ex(Pki::get().file("leaf_pair.pem").c_str(), &info, 1, &result));
  EXPECT_TRUE(log_.has(kCommon, kInfo, "client cert\n")) << log_.text();
  EXPECT_STREQ("rsaEncryption", info.privkey_alg);
  EXPECT_EQ(2048, info.privkey_bits);
}

TEST_F(Store, ExtendedInfoOfAClientFileWithoutKeyLeavesTheKeyFieldsEmpty) {
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(0, dl_get_ca_info_ex(Pki::get().file("leaf.pem").c_str(), &info, 1, &result));
  EXPECT_STREQ("", info.privkey_alg);
  EXPECT_EQ(0, info.privkey_bits);
}

TEST_F(Store, ExtendedInfoRewritesDerAsPem) {
  std::string src = copy("leaf.der");
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(0, dl_get_ca_info_ex(src.c_str(), &info, 0, &result));
  EXPECT_EQ(0u, read_file(src).find("-----BEGIN CERTIFICATE-----"));
  EXPECT_EQ(Pki::hash_of(Pki::get().file("leaf.pem")), info.hash);
}

TEST_F(Store, ExtendedInfoFailures) {
  dl_ca_info_ex info;
  dl_cert_result result;
  EXPECT_EQ(-1, dl_get_ca_info_ex(Pki::get().file("ca.pem").c_str(), &info, 0, nullptr));
  EXPECT_EQ(-1, dl_get_ca_info_ex(nullptr, &info, 0, &result));
  EXPECT_EQ(1, result.status);
  EXPECT_TRUE(logged(log_, "Invalid Parameter\n"));
  result.status = 0;
  EXPECT_EQ(-1, dl_get_ca_info_ex(set_.dir().file("none").c_str(), &info, 0, &result));
  EXPECT_EQ(1, result.status);
  EXPECT_TRUE(logged(log_, "Bio_new_file error filename\n"));
  result.status = 0;
  EXPECT_EQ(-1, dl_get_ca_info_ex(set_.dir().path().c_str(), &info, 0, &result));
  EXPECT_EQ(1, result.status);
}

TEST_F(Store, ExtendedTrustListing) {
  ASSERT_EQ(0, dl_install_ca(copy("ca.pem").c_str()));
  dl_ca_list_ex list;
  dl_cert_result result;
  ASSERT_EQ(0, dl_get_trust_ca_info_ex(&list, &result));
  ASSERT_EQ(1u, list.count);
  EXPECT_STREQ("Acc Root CA", list.info[0].subject);
  std::string path = trust() + hex8(list.info[0].hash) + ".0";
  EXPECT_STREQ(path.c_str(), list.info[0].path);
}

TEST_F(Store, ExtendedTrustListingFailures) {
  dl_ca_list_ex list;
  dl_cert_result result;
  EXPECT_EQ(-1, dl_get_trust_ca_info_ex(nullptr, &result));
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(-1, dl_get_trust_ca_info_ex(&list, &result));  // no trust directory yet
  EXPECT_EQ(2, result.status);
}

}  // namespace

// Listing the trust directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "cert/cert_test_support.h"
#include "quarry.h"

namespace {

using cert_test::CertRecipe;
using quarry_test::file_exists;

class CaList : public cert_test::CertTest {
 protected:
  void SetUp() override {
    CertTest::SetUp();
    ASSERT_EQ(mkdir(trust().c_str(), 0755), 0);
  }
  // Installs |count| CA certificates "CA <i>"; returns their subject CNs.
  std::set<std::string> install(int count) {
    std::set<std::string> names;
    for (int i = 0; i < count; ++i) {
      CertRecipe recipe;
      recipe.subject = "/CN=CA " + std::to_string(i) + "/O=Org " + std::to_string(i);
      cert_test::Key key = cert_test::ec_key();
      cert_test::Cert x = cert_test::make_cert(recipe, key.get());
      std::string path = file("ca" + std::to_string(i) + ".pem");
      cert_test::write_pem(path, x.get());
      EXPECT_EQ(dl_install_ca(path.c_str()), 0) << log_->text();
      names.insert("CA " + std::to_string(i));
    }
    return names;
  }
};

TEST_F(CaList, ListsEveryInstalledCertificateWithItsPath) {
  std::set<std::string> names = install(3);
  dl_ca_list list;
  memset(&list, 'x', sizeof list);
  ASSERT_EQ(dl_get_trust_ca_info(&list), 0);
  ASSERT_EQ(list.count, 3u);
  std::set<std::string> listed;
  for (uint32_t i = 0; i < list.count; ++i) {
    listed.insert(list.info[i].cn);
    char expected[32];
    snprintf(expected, sizeof expected, "%08x.0", list.info[i].hash);
    EXPECT_EQ(std::string(list.info[i].path), trust() + expected);
    EXPECT_STREQ(list.info[i].expiry, "Dec 31 23:59:59 2049 GMT");
  }
  EXPECT_EQ(listed, names);
  EXPECT_EQ(list.info[3].cn[0], 0);
  EXPECT_EQ(list.info[9].hash, 0u);
}

TEST_F(CaList, ExtendedListingHasTheSameCertificates) {
  std::set<std::string> names = install(2);
  dl_ca_list_ex list;
  dl_cert_result result;
  memset(&result, 'r', sizeof result);
  ASSERT_EQ(dl_get_trust_ca_info_ex(&list, &result), 0);
  EXPECT_EQ(result.status, 0);
  ASSERT_EQ(list.count, 2u);
  std::set<std::string> listed;
  for (uint32_t i = 0; i < list.count; ++i) {
    listed.insert(list.info[i].subject);
    char expected[32];
    snprintf(expected, sizeof expected, "%08x.0", list.info[i].hash);
    EXPECT_EQ(std::string(list.info[i].path), trust() + expected);
  }
  EXPECT_EQ(listed, names);
}

TEST_F(CaList, EleventhFileStopsTheListingAtTen) {
  install(11);
  dl_ca_list list;
  ASSERT_EQ(dl_get_trust_ca_info(&list), 0);
  EXPECT_EQ(list.count, 10u);
  EXPECT_EQ(log_->count(2, 4, "number of ca file is no less than 10!\n"), 1) << log_->text();
  dl_ca_list_ex ex;
  dl_cert_result result;
  ASSERT_EQ(dl_get_trust_ca_info_ex(&ex, &result), 0);
  EXPECT_EQ(ex.count, 10u);
  EXPECT_EQ(log_->count(2, 4, "number of ca file is no less than 10!\n"), 2);
}

TEST_F(CaList, TenFilesAreListedWithoutComplaint) {
  install(10);
  dl_ca_list list;
  ASSERT_EQ(dl_get_trust_ca_info(&list), 0);
  EXPECT_EQ(list.count, 10u);
  EXPECT_FALSE(log_->mentions("no less than 10"));
}

TEST_F(CaList, UnreadableEntryIsDeletedFromTheTrustDirectoryOnly) {
  install(1);
  dir_.write("trust/deadbeef.0", "not a certificate\n");
  ASSERT_EQ(mkdir(file("cwd").c_str(), 0755), 0);
  std::string bystander = dir_.write("cwd/deadbeef.0", "bystander");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(file("cwd").c_str()), 0);
  dl_ca_list list;
  int rc = dl_get_trust_ca_info(&list);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(list.count, 1u);
  EXPECT_STREQ(list.info[0].cn, "CA 0");
  EXPECT_FALSE(file_exists(trust() + "deadbeef.0"));
  EXPECT_EQ(quarry_test::read_file(bystander), "bystander");
}

TEST_F(CaList, ExtendedListingDeletesUnreadableEntry) {
  install(1);
  dir_.write("trust/0badf00d.0", "junk");
  dl_ca_list_ex list;
  dl_cert_result result;
  ASSERT_EQ(dl_get_trust_ca_info_ex(&list, &result), 0);
  EXPECT_EQ(list.count, 1u);
  EXPECT_EQ(result.status, 0);
  EXPECT_FALSE(file_exists(trust() + "0badf00d.0"));
}

TEST_F(CaList, EntriesWithoutDotZeroAreIgnored) {
  install(1);
  dir_.write("trust/readme.txt", "not listed, not deleted");
  dl_ca_list list;
  ASSERT_EQ(dl_get_trust_ca_info(&list), 0);
  EXPECT_EQ(list.count, 1u);
  EXPECT_TRUE(file_exists(trust() + "readme.txt"));
}

TEST_F(CaList, LongTrustPathIsCutInTheRecordButStillRead) {
  std::string long_trust = file(std::string(80, 't')) + "/";
  set_text(DL_OPT_TRUST_CA_DIR, long_trust);
  install(1);
  dl_ca_list list;
  ASSERT_EQ(dl_get_trust_ca_info(&list), 0);
  ASSERT_EQ(list.count, 1u);
  EXPECT_EQ(std::string(list.info[0].path), long_trust.substr(0, 63));
  EXPECT_STREQ(list.info[0].cn, "CA 0");
}

TEST_F(CaList, MissingDirectory) {
  set_text(DL_OPT_TRUST_CA_DIR, file("absent") + "/");
  dl_ca_list list;
  EXPECT_EQ(dl_get_trust_ca_info(&list), -2);
  dl_ca_list_ex ex;
  dl_cert_result result;
  EXPECT_EQ(dl_get_trust_ca_info_ex(&ex, &result), -1);
  EXPECT_EQ(result.status, 2);
}

TEST_F(CaList, NullArguments) {
  EXPECT_EQ(dl_get_trust_ca_info(nullptr), -1);
  dl_cert_result result = {};
  EXPECT_EQ(dl_get_trust_ca_info_ex(nullptr, &result), -1);
  EXPECT_EQ(result.status, 1);
  dl_ca_list_ex ex;
  EXPECT_EQ(dl_get_trust_ca_info_ex(&ex, nullptr), -1);
  EXPECT_EQ(dl_get_trust_ca_info_ex(nullptr, nullptr), -1);
  EXPECT_EQ(log_->count(2, 3, "Invalid Parameter\n"), 4);
}

}  // namespace

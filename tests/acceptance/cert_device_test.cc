// Device certificate: install, separate install, delete and information.
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "quarry.h"
#include "tests/acceptance/cert_pki.h"
#include "tests/support/log_capture.h"

namespace {

using cert_pki::logged;
using cert_pki::Pki;
using quarry_test::file_exists;
using quarry_test::read_file;

constexpr unsigned kCommon = 2;
constexpr int kWarning = 4;

class Device : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Pki::get().ok()); }
  std::string pki(const std::string &name) const { return Pki::get().file(name); }
  void set_method(uint32_t method) { ASSERT_EQ(0, dl_set_option(DL_OPT_SSL_METHOD, &method)); }
  // Puts |content| at the device file, making its directories.
  void place_device(const std::string &content) {
    mkdir(set_.root().c_str(), 0755);
    mkdir((set_.root() + "/server").c_str(), 0755);
    set_.dir().write("root/server/WebServer.pem", content);
  }

  cert_pki::Settings set_;
  quarry_test::LogCapture log_;
};

TEST_F(Device, InstallCopiesAMatchingPairAndMakesTheDirectories) {
  set_method(3);
  ASSERT_EQ(0, dl_install_ser_ca(pki("leaf_pair.pem").c_str())) << log_.text();
  EXPECT_EQ(read_file(pki("leaf_pair.pem")), read_file(set_.device()));
}

TEST_F(Device, InstallingTheInstalledFileAgainIsRefused) {
  set_method(3);
  ASSERT_EQ(0, dl_install_ser_ca(pki("leaf_pair.pem").c_str()));
  EXPECT_EQ(-7, dl_install_ser_ca(pki("leaf_pair.pem").c_str()));
  EXPECT_TRUE(logged(log_, "cert file same to custom device cert file\n")) << log_.text();
}

TEST_F(Device, TheFactoryFileIsRefused) {
  set_method(3);
  mkdir(set_.root().c_str(), 0755);
  mkdir((set_.root() + "/phonedev").c_str(), 0755);
  set_.dir().write("root/phonedev/WebServer.pem", read_file(pki("leaf_pair.pem")));
  EXPECT_EQ(-8, dl_install_ser_ca(pki("leaf_pair.pem").c_str()));
  EXPECT_TRUE(logged(log_, "cert file same to factory prefabrication device cert flie\n"))
      << log_.text();
  EXPECT_FALSE(file_exists(set_.device()));
}

TEST_F(Device, AMismatchedKeyIsRefused) {
  set_method(3);
  EXPECT_EQ(-4, dl_install_ser_ca(pki("leaf_wrongkey.pem").c_str()));
  EXPECT_TRUE(logged(log_, "Private key does not match the certificate public key\n"))
      << log_.text();
  EXPECT_FALSE(file_exists(set_.device()));
}

TEST_F(Device, ACertificateWithoutKeyFailsTheMatchCheck) {
  // A key load that returns 0 is let through; the match check reports it.
  set_method(3);
  EXPECT_EQ(-4, dl_install_ser_ca(pki("leaf.pem").c_str()));
  EXPECT_TRUE(logged(log_, "Private key does not match the certificate public key\n"))
      << log_.text();
}

TEST_F(Device, AMethodOutsideZeroToFiveIsRefused) {
  // The option refuses 6, so the record is written directly, as callers may.
  pthread_mutex_lock(&g_dl_cfg.cfg_lock);
  g_dl_cfg.ssl_method = 6;
  pthread_mutex_unlock(&g_dl_cfg.cfg_lock);
  EXPECT_EQ(-7, dl_install_ser_ca(pki("leaf_pair.pem").c_str()));
  EXPECT_TRUE(logged(log_, "Wrong method")) << log_.text();
}

TEST_F(Device, APathWithoutSlashIsRefused) {
  set_method(3);
  ASSERT_EQ(0, dl_set_option(DL_OPT_SERVER_CERT_PATH, "WebServer.pem"));
  EXPECT_EQ(-7, dl_install_ser_ca(pki("leaf_pair.pem").c_str()));
  EXPECT_TRUE(logged(log_, "Wrong server ca path\n")) << log_.text();
}

TEST_F(Device, SeparateDerCertificateJoinsTheKeyAlreadyInstalled) {
  place_device(read_file(pki("other_pair.pem")));
  ASSERT_EQ(0, dl_install_ser_ca_separate(pki("leaf.der").c_str())) << log_.text();
  std::string out = read_file(set_.device());
  EXPECT_EQ(0u, out.find("-----BEGIN CERTIFICATE-----"));
  EXPECT_NE(std::string::npos, out.find("PRIVATE KEY-----"));
  EXPECT_EQ(Pki::x509(pki("leaf.pem"), "fingerprint"), Pki::x509(set_.device(), "fingerprint"));
  std::string key = set_.dir().write("key.pem", out.substr(out.find("-----BEGIN PRIVATE")));
  EXPECT_EQ(cert_pki::run("openssl pkey -pubout -in '" + pki("other.key") + "'"),
            cert_pki::run("openssl pkey -pubout -in '" + key + "'"));
}

TEST_F(Device, SeparatePairNeedsNoExistingFileAndMakesTheServerDirectory) {
  ASSERT_EQ(0, mkdir(set_.root().c_str(), 0755));  // only "server" itself is made
  ASSERT_EQ(0, dl_install_ser_ca_separate(pki("leaf_pair.pem").c_str())) << log_.text();
  EXPECT_EQ(Pki::x509(pki("leaf.pem"), "fingerprint"), Pki::x509(set_.device(), "fingerprint"));
  EXPECT_NE(std::string::npos, read_file(set_.device()).find("PRIVATE KEY-----"));
}

TEST_F(Device, SeparateFailures) {
  EXPECT_EQ(-1, dl_install_ser_ca_separate(nullptr));
  EXPECT_TRUE(logged(log_, "Invaild paramter\n")) << log_.text();
  EXPECT_EQ(-1, dl_install_ser_ca_separate(set_.dir().file("none").c_str()));
  EXPECT_TRUE(logged(log_, "Bio_new_file dev cert err\n")) << log_.text();
  EXPECT_EQ(-1, dl_install_ser_ca_separate(set_.dir().write("junk", "junk\n").c_str()));
  EXPECT_TRUE(logged(log_, "load dev cert err\n")) << log_.text();
  EXPECT_FALSE(file_exists(set_.device()));
}

TEST_F(Device, SeparateNeedsServerInThePath) {
  std::string elsewhere = set_.dir().file("dev.pem");
  ASSERT_EQ(0, dl_set_option(DL_OPT_SERVER_CERT_PATH, elsewhere.c_str()));
  EXPECT_EQ(-1, dl_install_ser_ca_separate(pki("leaf_pair.pem").c_str()));
  EXPECT_TRUE(logged(log_, "server cert dir err")) << log_.text();
  EXPECT_FALSE(file_exists(elsewhere));
}

TEST_F(Device, DeleteRemovesTheDeviceFile) {
  place_device(read_file(pki("leaf_pair.pem")));
  EXPECT_EQ(0, dl_del_ser_ca());
  EXPECT_FALSE(file_exists(set_.device()));
  EXPECT_EQ(0, dl_del_ser_ca());  // nothing left to delete
}

TEST_F(Device, InfoOfAMatchingPair) {
  place_device(read_file(pki("leaf_pair.pem")));
  dl_ca_info info;
  memset(&info, 'x', sizeof(info));
  ASSERT_EQ(0, dl_get_ser_ca_info(&info)) << log_.text();
  EXPECT_STREQ("leaf.example", info.cn);
  EXPECT_STREQ("Leaf Org", info.org);
  EXPECT_EQ(Pki::hash_of(pki("leaf.pem")), info.hash);
}

TEST_F(Device, InfoOfACertificateWithoutKeyFillsTheRecordAndReturnsMinus3) {
  place_device(read_file(pki("leaf.pem")));
  dl_ca_info info;
  EXPECT_EQ(-3, dl_get_ser_ca_info(&info));
  EXPECT_STREQ("leaf.example", info.cn);
  EXPECT_TRUE(log_.has(kCommon, kWarning, "private key doesn't match public key\n"))
      << log_.text();
}

TEST_F(Device, InfoOfAMismatchedKeyReturnsMinus3) {
  place_device(read_file(pki("leaf_wrongkey.pem")));
  dl_ca_info info;
  EXPECT_EQ(-3, dl_get_ser_ca_info(&info));
  EXPECT_TRUE(log_.has(kCommon, kWarning, "private key doesn't match public key\n"));
}

TEST_F(Device, InfoFailures) {
  dl_ca_info info;
  EXPECT_EQ(-1, dl_get_ser_ca_info(nullptr));
  EXPECT_TRUE(logged(log_, "Invalid Parameter\n"));
  EXPECT_EQ(-2, dl_get_ser_ca_info(&info));  // no device file
}

}  // namespace

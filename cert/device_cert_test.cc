// The device certificate: install, separate install, delete, information.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cert/cert_test_support.h"
#include "quarry.h"

namespace {

using cert_test::CertRecipe;
using cert_test::quote;
using cert_test::run;
using cert_test::trim;
using quarry_test::file_exists;
using quarry_test::read_file;

class DeviceCert : public cert_test::CertTest {
 protected:
  void SetUp() override {
    CertTest::SetUp();
    key_ = cert_test::ec_key();
    CertRecipe recipe;
    recipe.subject = "/CN=phone.local/O=Phone Maker";
    cert_ = cert_test::make_cert(recipe, key_.get());
  }
  // Certificate and key in one PEM file.
  std::string pair(const std::string &name, const char *password = nullptr) {
    std::string path = file(name);
    cert_test::write_pem(path, cert_.get());
    cert_test::write_key(path, key_.get(), password, true);
    return path;
  }
  std::string fingerprint(const std::string &path) {
    return run("openssl x509 -noout -fingerprint -sha256 -in " + quote(path) + " 2>/dev/null");
  }
  std::string public_key(const std::string &path) {
    return run("openssl pkey -pubout -in " + quote(path) + " 2>/dev/null");
  }
  cert_test::Key key_;
  cert_test::Cert cert_;
};

TEST_F(DeviceCert, InstallCopiesCheckedPairToDeviceFile) {
  std::string path = pair("pair.pem");
  ASSERT_EQ(dl_install_ser_ca(path.c_str()), 0) << log_->text();
  EXPECT_EQ(read_file(device()), read_file(path));
  EXPECT_EQ(dl_path_is_directory(file("root/server").c_str()), 1);
}

TEST_F(DeviceCert, InstallingTheInstalledFileAgainIsRefused) {
  std::string path = pair("pair.pem");
  ASSERT_EQ(dl_install_ser_ca(path.c_str()), 0);
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -7);
  EXPECT_TRUE(log_->has(2, 3, "cert file same to custom device cert file\n")) << log_->text();
  EXPECT_EQ(dl_install_ser_ca(device().c_str()), -7);
}

TEST_F(DeviceCert, FactoryFileIsRefused) {
  std::string path = pair("pair.pem");
  ASSERT_EQ(mkdir(file("root").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(file("root/phonedev").c_str(), 0755), 0);
  ASSERT_EQ(dl_copy_file(path.c_str(), file("root/phonedev/WebServer.pem").c_str()), 0);
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -8);
  EXPECT_TRUE(
      log_->has(2, 3, "cert file same to factory prefabrication device cert flie\n"))
      << log_->text();
  EXPECT_FALSE(file_exists(device()));
}

TEST_F(DeviceCert, DeviceFileOutsideServerDirectoryInstalledOntoItselfStaysIntact) {
  set_text(DL_OPT_SERVER_CERT_PATH, file("root/other/WebServer.pem"));
  ASSERT_EQ(mkdir(file("root").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(file("root/other").c_str(), 0755), 0);
  std::string path = pair("root/other/WebServer.pem");
  std::string before = read_file(path);
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), 0);
  EXPECT_EQ(read_file(path), before);
}

TEST_F(DeviceCert, CertificateWithoutKeyIsAMismatch) {
  cert_test::write_pem(file("cert.pem"), cert_.get());
  EXPECT_EQ(dl_install_ser_ca(file("cert.pem").c_str()), -4);
  EXPECT_TRUE(log_->has(2, 3, "Private key does not match the certificate public key\n"))
      << log_->text();
  EXPECT_FALSE(log_->mentions("Can't load private key"));
}

TEST_F(DeviceCert, ForeignKeyIsAMismatch) {
  cert_test::Key other = cert_test::ec_key();
  cert_test::write_pem(file("pair.pem"), cert_.get());
  cert_test::write_key(file("pair.pem"), other.get(), nullptr, true);
  EXPECT_EQ(dl_install_ser_ca(file("pair.pem").c_str()), -4);
}

TEST_F(DeviceCert, EncryptedKeyNeedsKeyPassword) {
  std::string path = pair("pair.pem", "device pass");
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -4);
  set_text(DL_OPT_KEY_PASSWORD, "device pass");
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), 0) << log_->text();
}

TEST_F(DeviceCert, FileWithoutCertificateCannotBeOpenedAsCaFile) {
  cert_test::write_key(file("key.pem"), key_.get());
  EXPECT_EQ(dl_install_ser_ca(file("key.pem").c_str()), -5);
  EXPECT_TRUE(log_->has(2, 3, "Can't open ca file ser_ca_file\n")) << log_->text();
  EXPECT_EQ(dl_install_ser_ca(file("missing.pem").c_str()), -5);
  EXPECT_EQ(dl_install_ser_ca(nullptr), -5);
}

TEST_F(DeviceCert, PathWithoutTwoLevelsIsRefused) {
  std::string path = pair("pair.pem");
  set_text(DL_OPT_SERVER_CERT_PATH, "WebServer.pem");
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -7);
  set_text(DL_OPT_SERVER_CERT_PATH, "/WebServer.pem");
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -7);
  EXPECT_EQ(log_->count(2, 3, "Wrong server ca path\n"), 2) << log_->text();
}

TEST_F(DeviceCert, MethodOutsideTableIsRefused) {
  std::string path = pair("pair.pem");
  set_method(6);
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -7);
  EXPECT_TRUE(log_->has(2, 3, "Wrong method")) << log_->text();
}

TEST_F(DeviceCert, MethodsOpensslNoLongerHasFailAsContext) {
  std::string path = pair("pair.pem");
  for (unsigned method : {1u, 2u}) {
    set_method(method);
    EXPECT_EQ(dl_install_ser_ca(path.c_str()), -5) << method;
  }
  EXPECT_EQ(log_->count(2, 3, "SSL_CTX_new error\n"), 2);
  for (unsigned method : {0u, 3u, 4u, 5u}) {
    set_method(method);
    EXPECT_EQ(dl_install_ser_ca(path.c_str()), method == 0 ? 0 : -7) << method;
  }
}

TEST_F(DeviceCert, UncreatableRootOrServerDirectory) {
  std::string path = pair("pair.pem");
  set_text(DL_OPT_SERVER_CERT_PATH, file("no/root/server/WebServer.pem"));
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -6);
  EXPECT_TRUE(log_->has(2, 3, "Can't open trust_path\n"));
  set_text(DL_OPT_SERVER_CERT_PATH, device());
  ASSERT_EQ(mkdir(file("root").c_str(), 0755), 0);
  dir_.write("root/server", "a file");
  EXPECT_EQ(dl_install_ser_ca(path.c_str()), -6);
  EXPECT_TRUE(log_->has(2, 3, "Can't open serverdir\n")) << log_->text();
}

TEST_F(DeviceCert, SeparateDerCertificateJoinsKeyAlreadyInstalled) {
  std::string path = pair("pair.pem");
  ASSERT_EQ(dl_install_ser_ca(path.c_str()), 0);
  CertRecipe recipe;
  recipe.subject = "/CN=renewed";
  cert_test::Cert renewed = cert_test::make_cert(recipe, key_.get());
  cert_test::write_der(file("renewed.der"), renewed.get());
  ASSERT_EQ(dl_install_ser_ca_separate(file("renewed.der").c_str()), 0) << log_->text();
  std::string stored = read_file(device());
  EXPECT_EQ(stored.find("-----BEGIN CERTIFICATE-----"), 0u);
  EXPECT_NE(stored.find("PRIVATE KEY-----"), std::string::npos);
  cert_test::write_pem(file("renewed.pem"), renewed.get());
  EXPECT_EQ(fingerprint(device()), fingerprint(file("renewed.pem")));
  EXPECT_EQ(public_key(device()), public_key(path));
  dl_ca_info info;
  EXPECT_EQ(dl_get_ser_ca_info(&info), 0);
  EXPECT_STREQ(info.cn, "renewed");
}

TEST_F(DeviceCert, SeparateKeyJoinsCertificateAlreadyInstalled) {
  ASSERT_EQ(mkdir(file("root").c_str(), 0755), 0);
  cert_test::write_pem(file("cert.pem"), cert_.get());
  ASSERT_EQ(dl_install_ser_ca_separate(file("cert.pem").c_str()), 0) << log_->text();
  EXPECT_TRUE(log_->has(2, 3, "Bio_new_file dev cert err\n"));
  dl_ca_info info;
  EXPECT_EQ(dl_get_ser_ca_info(&info), -3);
  cert_test::write_key(file("key.pem"), key_.get(), "pw");
  set_text(DL_OPT_KEY_PASSWORD, "pw");
  ASSERT_EQ(dl_install_ser_ca_separate(file("key.pem").c_str()), 0);
  EXPECT_EQ(dl_get_ser_ca_info(&info), 0);
  EXPECT_EQ(fingerprint(device()), fingerprint(file("cert.pem")));
  EXPECT_EQ(read_file(device()).find("ENCRYPTED"), std::string::npos);
}

TEST_F(DeviceCert, SeparateFailures) {
  EXPECT_EQ(dl_install_ser_ca_separate(nullptr), -1);
  EXPECT_TRUE(log_->has(2, 3, "Invaild paramter\n"));
  EXPECT_EQ(dl_install_ser_ca_separate(file("missing").c_str()), -1);
  EXPECT_TRUE(log_->has(2, 3, "Bio_new_file dev cert err\n"));
  EXPECT_EQ(dl_install_ser_ca_separate(dir_.write("junk", "junk").c_str()), -1);
  EXPECT_TRUE(log_->has(2, 3, "load dev cert err\n"));
  set_text(DL_OPT_SERVER_CERT_PATH, file("root/device/WebServer.pem"));
  EXPECT_EQ(dl_install_ser_ca_separate(pair("pair.pem").c_str()), -1);
  EXPECT_TRUE(log_->has(2, 3, "server cert dir err")) << log_->text();
  EXPECT_FALSE(file_exists(file("root")));
}

TEST_F(DeviceCert, SeparateCreatesServerDirectoryAfterTheWordServer) {
  mode_t old = umask(0);
  int rc = dl_install_ser_ca_separate(pair("pair.pem").c_str());
  umask(old);
  ASSERT_EQ(rc, -1);  // root/ is missing: only "server" itself is made
  EXPECT_TRUE(log_->has(2, 3, "Can't open serverdir\n"));
  ASSERT_EQ(mkdir(file("root").c_str(), 0755), 0);
  old = umask(0);
  rc = dl_install_ser_ca_separate(pair("pair.pem").c_str());
  umask(old);
  ASSERT_EQ(rc, 0);
  struct stat st;
  ASSERT_EQ(stat(file("root/server").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0775u);
}

TEST_F(DeviceCert, DeleteRemovesOnlyTheDeviceFile) {
  ASSERT_EQ(dl_install_ser_ca(pair("pair.pem").c_str()), 0);
  EXPECT_EQ(dl_del_ser_ca(), 0);
  EXPECT_FALSE(file_exists(device()));
  EXPECT_TRUE(file_exists(file("pair.pem")));
  EXPECT_EQ(dl_del_ser_ca(), 0);
}

TEST_F(DeviceCert, DeleteTreatsShellSyntaxAsAName) {
  const std::string nasty = "x;touch pwned $(touch pwned2)`touch pwned3`";
  set_text(DL_OPT_SERVER_CERT_PATH, file(nasty));
  dir_.write(nasty, "device");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(dl_del_ser_ca(), 0);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_FALSE(file_exists(file(nasty)));
  EXPECT_EQ(run("ls -A " + quote(dir_.path())), "");
}

TEST_F(DeviceCert, InfoFillsRecordAndChecksKey) {
  ASSERT_EQ(dl_install_ser_ca(pair("pair.pem").c_str()), 0);
  dl_ca_info info;
  memset(&info, 'x', sizeof info);
  ASSERT_EQ(dl_get_ser_ca_info(&info), 0) << log_->text();
  EXPECT_STREQ(info.cn, "phone.local");
  EXPECT_STREQ(info.org, "Phone Maker");
  EXPECT_STREQ(info.expiry, "Dec 31 23:59:59 2049 GMT");
  EXPECT_EQ(info.hash, strtoul(hash_name(device()).c_str(), nullptr, 16));
  EXPECT_STREQ(info.path, "");
}

TEST_F(DeviceCert, InfoOfCertificateWithoutKeyIsMinus3AfterRecordFilled) {
  ASSERT_EQ(mkdir(file("root").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(file("root/server").c_str(), 0755), 0);
  cert_test::write_pem(device(), cert_.get());
  dl_ca_info info;
  EXPECT_EQ(dl_get_ser_ca_info(&info), -3);
  EXPECT_STREQ(info.cn, "phone.local");
  EXPECT_TRUE(log_->has(2, 4, "private key doesn't match public key\n")) << log_->text();
  cert_test::Key other = cert_test::ec_key();
  cert_test::write_key(device(), other.get(), nullptr, true);
  EXPECT_EQ(dl_get_ser_ca_info(&info), -3);
}

TEST_F(DeviceCert, InfoFailures) {
  EXPECT_EQ(dl_get_ser_ca_info(nullptr), -1);
  EXPECT_TRUE(log_->has(2, 3, "Invalid Parameter\n"));
  dl_ca_info info;
  EXPECT_EQ(dl_get_ser_ca_info(&info), -2);
}

}  // namespace

namespace {

// The phone's own keys and client certificates (RSA 1024, MD5) are below
// the system's security level; they are still a usable pair.
TEST_F(DeviceCert, PairBelowTheSystemSecurityLevelIsAccepted) {
  set_method(3);  // the negotiating context keeps the system's level
  cert_test::Key ca_key = cert_test::rsa_key(2048);
  CertRecipe ca_spec;
  ca_spec.subject = "/CN=Weak CA";
  ca_spec.ca = true;
  cert_test::Cert ca = cert_test::make_cert(ca_spec, ca_key.get());
  cert_test::Key key = cert_test::rsa_key(1024);
  CertRecipe recipe;
  recipe.subject = "/CN=weak";
  recipe.md = EVP_md5();
  cert_test::Cert x = cert_test::make_cert(recipe, key.get(), ca.get(), ca_key.get());
  cert_test::write_pem(file("weak.pem"), x.get());
  cert_test::write_key(file("weak.pem"), key.get(), nullptr, true);
  SSL_CTX *system_level = SSL_CTX_new(TLS_method());
  EXPECT_NE(SSL_CTX_use_certificate_file(system_level, file("weak.pem").c_str(), SSL_FILETYPE_PEM),
            1);
  SSL_CTX_free(system_level);
  EXPECT_EQ(dl_install_ser_ca(file("weak.pem").c_str()), 0) << log_->text();
  dl_cert_result result;
  EXPECT_EQ(dl_cert_verify(file("weak.pem").c_str(), nullptr, nullptr, 1, &result), -1);
  EXPECT_EQ(result.status, 6);  // only the issuer is missing
}

}  // namespace

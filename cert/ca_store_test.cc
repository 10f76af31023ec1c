// Installing and deleting trusted CA certificates.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cert/cert_test_support.h"
#include "quarry.h"

namespace {

using cert_test::CertRecipe;
using cert_test::quote;
using cert_test::run;
using quarry_test::file_exists;
using quarry_test::read_file;

class CaStore : public cert_test::CertTest {
 protected:
  // A self-signed CA certificate written to |name| (PEM or DER).
  std::string make_ca(const std::string &name, const std::string &subject, bool der = false) {
    CertRecipe recipe;
    recipe.subject = subject;
    recipe.ca = true;
    return cert_test::write_self_signed(file(name), recipe, der);
  }
  std::string fingerprint(const std::string &path, const std::string &form = "PEM") {
    return run("openssl x509 -noout -fingerprint -sha256 -inform " + form + " -in " + quote(path) +
               " 2>/dev/null");
  }
};

TEST_F(CaStore, InstallStoresHashFileWithBothLinks) {
  std::string ca = make_ca("ca.pem", "/CN=Store CA/O=Quarry");
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0) << log_->text();
  std::string h = hash_name(ca);
  ASSERT_EQ(h.size(), 8u);
  std::string stored = trust() + h + ".0";
  EXPECT_FALSE(cert_test::is_symlink(stored));
  EXPECT_EQ(read_file(stored), read_file(ca));
  EXPECT_TRUE(cert_test::is_symlink(trust() + h));
  EXPECT_EQ(cert_test::link_target(trust() + h), stored);
  EXPECT_TRUE(cert_test::is_symlink(trust() + "ca/" + h + ".0"));
  EXPECT_EQ(cert_test::link_target(trust() + "ca/" + h + ".0"), stored);
  EXPECT_TRUE(dl_path_is_directory((trust() + "phoneca").c_str()) == 1);
}

TEST_F(CaStore, InstalledCertificateIsFoundByOpensslDirectoryLookup) {
  CertRecipe ca_spec;
  ca_spec.subject = "/CN=Lookup CA";
  ca_spec.ca = true;
  cert_test::Key ca_key = cert_test::ec_key();
  cert_test::Cert ca = cert_test::make_cert(ca_spec, ca_key.get());
  cert_test::write_pem(file("ca.pem"), ca.get());
  CertRecipe leaf_spec;
  leaf_spec.subject = "/CN=leaf";
  cert_test::Key leaf_key = cert_test::ec_key();
  cert_test::Cert leaf = cert_test::make_cert(leaf_spec, leaf_key.get(), ca.get(), ca_key.get());
  cert_test::write_pem(file("leaf.pem"), leaf.get());
  int status = -1;
  run("openssl verify -CApath " + quote(trust() + "ca/") + " " + quote(file("leaf.pem")) +
          " >/dev/null 2>&1",
      &status);
  EXPECT_NE(status, 0);
  ASSERT_EQ(dl_install_ca(file("ca.pem").c_str()), 0);
  for (const std::string &dir : {trust(), trust() + "ca/"}) {
    std::string out = run("openssl verify -no-CAfile -no-CAstore -CApath " + quote(dir) + " " +
                              quote(file("leaf.pem")) + " 2>&1",
                          &status);
    EXPECT_EQ(status, 0) << dir << ": " << out;
  }
}

TEST_F(CaStore, DerFileIsLeftAsPemAtSourceAndInStore) {
  std::string ca = make_ca("ca.der", "/CN=Der CA", true);
  std::string before = fingerprint(ca, "DER");
  ASSERT_FALSE(before.empty());
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0) << log_->text();
  EXPECT_NE(read_file(ca).find("-----BEGIN CERTIFICATE-----"), std::string::npos);
  EXPECT_EQ(fingerprint(ca), before);
  std::string h = hash_name(ca);
  EXPECT_EQ(fingerprint(trust() + h + ".0"), before);
  EXPECT_TRUE(log_->has(2, 6, "convert to PEM code\n")) << log_->text();
  EXPECT_FALSE(file_exists("/tmp/ca_tmp.crt"));
}

TEST_F(CaStore, TemporaryNameHeldByALinkIsNotFollowed) {
  // A link planted at the temporary name must not redirect the write.
  std::string victim = file("victim.txt");
  quarry_test::TempDir other;
  std::string ca = make_ca("ca.der", "/CN=Link CA", true);
  (void)unlink("/tmp/ca_tmp.crt");
  ASSERT_EQ(symlink(victim.c_str(), "/tmp/ca_tmp.crt"), 0);
  EXPECT_EQ(dl_install_ca(ca.c_str()), 0) << log_->text();
  EXPECT_FALSE(file_exists(victim));
  EXPECT_FALSE(cert_test::is_symlink("/tmp/ca_tmp.crt"));
  (void)unlink("/tmp/ca_tmp.crt");
}

TEST_F(CaStore, SameSubjectHashIsDuplicateEvenForAnotherCertificate) {
  std::string first = make_ca("first.pem", "/CN=Twin CA");
  std::string second = make_ca("second.pem", "/CN=Twin CA");
  ASSERT_NE(fingerprint(first), fingerprint(second));
  ASSERT_EQ(dl_install_ca(first.c_str()), 0);
  log_->clear();
  EXPECT_EQ(dl_install_ca(second.c_str()), -2);
  EXPECT_TRUE(log_->has(2, 3, "the ca file file has existed in custom certs directory\n"))
      << log_->text();
  EXPECT_EQ(fingerprint(trust() + hash_name(first) + ".0"), fingerprint(first));
}

TEST_F(CaStore, FactoryCertificateOfSameHashReturnsMinus3) {
  std::string ca = make_ca("ca.pem", "/CN=Factory CA");
  ASSERT_EQ(mkdir(trust().c_str(), 0755), 0);
  ASSERT_EQ(mkdir((trust() + "phoneca").c_str(), 0755), 0);
  std::string h = hash_name(ca);
  ASSERT_EQ(dl_copy_file(ca.c_str(), (trust() + "phoneca/" + h + ".0").c_str()), 0);
  EXPECT_EQ(dl_install_ca(ca.c_str()), -3);
  EXPECT_TRUE(log_->has(2, 3, "the ca file has existed by factory prefabrication\n"))
      << log_->text();
  EXPECT_FALSE(file_exists(trust() + h + ".0"));
}

TEST_F(CaStore, MissingFileReturnsMinus1) {
  EXPECT_EQ(dl_install_ca(file("nothing.pem").c_str()), -1);
  EXPECT_TRUE(log_->has(2, 3, "Bio_new_file error ca_file\n")) << log_->text();
}

TEST_F(CaStore, NotACertificateReturnsMinus1) {
  std::string junk = dir_.write("junk.pem", "-----BEGIN CERTIFICATE-----\nnonsense\n");
  EXPECT_EQ(dl_install_ca(junk.c_str()), -1);
  EXPECT_TRUE(log_->has(2, 3, "unable to load certificate ca_file\n")) << log_->text();
  EXPECT_EQ(read_file(junk), "-----BEGIN CERTIFICATE-----\nnonsense\n");
}

TEST_F(CaStore, DirectoryReturnsMinus1) {
  EXPECT_EQ(dl_install_ca(dir_.path().c_str()), -1);
  EXPECT_TRUE(log_->has(2, 5, "path is directory, ret\n")) << log_->text();
}

TEST_F(CaStore, UncreatableTrustDirectoryReturnsMinus1) {
  set_text(DL_OPT_TRUST_CA_DIR, dir_.path() + "/no/such/");
  std::string ca = make_ca("ca.pem", "/CN=Lost CA");
  EXPECT_EQ(dl_install_ca(ca.c_str()), -1);
  EXPECT_TRUE(log_->has(2, 3, "Can't open custom trust certs directory\n")) << log_->text();
}

TEST_F(CaStore, UncreatableAllCaDirectoryIsLoggedAndInstallGoesOn) {
  ASSERT_EQ(mkdir(trust().c_str(), 0755), 0);
  dir_.write("trust/ca", "a file where the directory should be");
  std::string ca = make_ca("ca.pem", "/CN=No All CA");
  EXPECT_EQ(dl_install_ca(ca.c_str()), 0);
  EXPECT_TRUE(log_->has(2, 3, "Can't create directory all ca certs directory\n")) << log_->text();
  EXPECT_TRUE(file_exists(trust() + hash_name(ca) + ".0"));
}

TEST_F(CaStore, UncreatableFactoryDirectoryReturnsMinus1) {
  ASSERT_EQ(mkdir(trust().c_str(), 0755), 0);
  dir_.write("trust/phoneca", "a file where the directory should be");
  std::string ca = make_ca("ca.pem", "/CN=No Factory CA");
  EXPECT_EQ(dl_install_ca(ca.c_str()), -1);
  EXPECT_TRUE(log_->has(2, 3, "Can't open factory prefabrication directory\n")) << log_->text();
}

TEST_F(CaStore, DeleteRemovesFileAndEveryNameButFactoryOnes) {
  std::string ca = make_ca("ca.pem", "/CN=Gone CA");
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  std::string h = hash_name(ca);
  ASSERT_EQ(dl_copy_file(ca.c_str(), (trust() + "phoneca/" + h + ".0").c_str()), 0);
  log_->clear();
  EXPECT_EQ(dl_del_ca(ca.c_str()), 0);
  EXPECT_FALSE(file_exists(ca));
  EXPECT_FALSE(file_exists(trust() + h + ".0"));
  EXPECT_FALSE(cert_test::is_symlink(trust() + h));
  EXPECT_FALSE(cert_test::is_symlink(trust() + "ca/" + h + ".0"));
  EXPECT_TRUE(file_exists(trust() + "phoneca/" + h + ".0"));
  char line[32];
  snprintf(line, sizeof line, "hash:%lx\n", strtoul(h.c_str(), nullptr, 16));
  EXPECT_TRUE(log_->has(2, 6, line)) << log_->text();
}

TEST_F(CaStore, DeleteOfStoredNameRemovesItsLinksToo) {
  std::string ca = make_ca("ca.pem", "/CN=Self Delete CA");
  ASSERT_EQ(dl_install_ca(ca.c_str()), 0);
  std::string h = hash_name(ca);
  EXPECT_EQ(dl_del_ca((trust() + h + ".0").c_str()), 0);
  EXPECT_FALSE(file_exists(trust() + h + ".0"));
  EXPECT_FALSE(cert_test::is_symlink(trust() + h));
  EXPECT_FALSE(cert_test::is_symlink(trust() + "ca/" + h + ".0"));
  EXPECT_TRUE(file_exists(ca));
}

TEST_F(CaStore, DeleteOfUnreadableFileRemovesOnlyThatFile) {
  std::string junk = dir_.write("junk.pem", "not a certificate\n");
  EXPECT_EQ(dl_del_ca(junk.c_str()), 0);
  EXPECT_FALSE(file_exists(junk));
  EXPECT_FALSE(log_->mentions("hash:"));
}

TEST_F(CaStore, DeleteWithoutTrustDirectoryTouchesNoOtherFile) {
  std::string ca = make_ca("ca.pem", "/CN=Nowhere CA");
  std::string h = hash_name(ca);
  std::string bystander = dir_.write(h + ".0", "bystander");
  set_text(DL_OPT_TRUST_CA_DIR, "");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(dl_del_ca(ca.c_str()), 0);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_FALSE(file_exists(ca));
  EXPECT_EQ(read_file(bystander), "bystander");
}

// Names full of shell syntax are only ever names: nothing runs.
TEST_F(CaStore, ShellSyntaxInPathsIsNeverRun) {
  const std::string nasty = "a b;touch pwned1;$(touch pwned2)`touch pwned3`'\"x|touch pwned4&";
  ASSERT_EQ(mkdir(file("t " + nasty).c_str(), 0755), 0);
  set_text(DL_OPT_TRUST_CA_DIR, file("t " + nasty) + "/" + nasty + "/");
  std::string ca = make_ca(nasty + ".pem", "/CN=Nasty CA");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  int installed = dl_install_ca(ca.c_str());
  std::string stored = file("t " + nasty) + "/" + nasty + "/" + hash_name(ca) + ".0";
  bool stored_there = file_exists(stored);
  int deleted = dl_del_ca(ca.c_str());
  bool stored_after = file_exists(stored);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ(installed, 0) << log_->text();
  EXPECT_TRUE(stored_there);
  EXPECT_EQ(deleted, 0);
  EXPECT_FALSE(stored_after);
  EXPECT_FALSE(file_exists(ca));
  for (const char *marker : {"pwned1", "pwned2", "pwned3", "pwned4"}) {
    EXPECT_FALSE(file_exists(file(marker))) << marker;
    EXPECT_FALSE(file_exists(std::string(cwd) + "/" + marker)) << marker;
  }
}

// A directory chain whose full path is |length| characters long.
std::string deep_dir(const std::string &base, size_t length) {
  std::string path = base;
  while (path.size() + 1 < length) {
    size_t part = std::min<size_t>(200, length - path.size() - 1);
    path += "/" + std::string(part, 'd');
    mkdir(path.c_str(), 0755);
  }
  return path;
}

TEST_F(CaStore, LongPathsWorkAndWriteNowhereElse) {
  std::string long_dir = deep_dir(dir_.path(), 580);
  ASSERT_EQ(dl_path_is_directory(long_dir.c_str()), 1);
  std::string ca_path = long_dir + "/" + std::string(600 - long_dir.size() - 5, 'c') + ".pem";
  ASSERT_EQ(ca_path.size(), 600u);
  CertRecipe recipe;
  recipe.subject = "/CN=Long Path CA";
  cert_test::Key key = cert_test::ec_key();
  cert_test::Cert x = cert_test::make_cert(recipe, key.get());
  cert_test::write_pem(ca_path, x.get());
  // A trust directory near the setting's 511 characters.
  ASSERT_EQ(mkdir((dir_.path() + "/trustbase").c_str(), 0755), 0);
  std::string long_trust = deep_dir(dir_.path() + "/trustbase", 505) + "/";
  set_text(DL_OPT_TRUST_CA_DIR, long_trust);
  EXPECT_EQ(dl_install_ca(ca_path.c_str()), 0) << log_->text();
  std::string h = hash_name(ca_path);
  EXPECT_TRUE(file_exists(long_trust + h + ".0"));
  EXPECT_TRUE(cert_test::is_symlink(long_trust + "ca/" + h + ".0"));
  EXPECT_EQ(dl_del_ca(ca_path.c_str()), 0);
  EXPECT_FALSE(file_exists(ca_path));
  EXPECT_FALSE(file_exists(long_trust + h + ".0"));
  EXPECT_FALSE(cert_test::is_symlink(long_trust + h));
  EXPECT_FALSE(cert_test::is_symlink(long_trust + "ca/" + h + ".0"));
  // Nothing but the two trees in the temporary directory.
  // Nothing but the two trees in the temporary directory, and no file
  // left anywhere in them.
  EXPECT_EQ(run("ls -A " + quote(dir_.path())), std::string(200, 'd') + "\ntrustbase\n");
  EXPECT_EQ(run("find " + quote(dir_.path()) + " -type f"), "");
}

TEST_F(CaStore, NullPathIsRefused) {
  EXPECT_EQ(dl_install_ca(nullptr), -1);
  EXPECT_EQ(dl_del_ca(nullptr), 0);
}

}  // namespace

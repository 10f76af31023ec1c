// The basic and extended information records of one certificate file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cert/cert_test_support.h"
#include "quarry.h"
#include "tests/support/child_process.h"

namespace {

using cert_test::CertRecipe;
using cert_test::quote;
using cert_test::run;
using cert_test::trim;

class CaInfo : public cert_test::CertTest {
 protected:
  std::string make(const std::string &name, const CertRecipe &recipe, bool der = false) {
    return cert_test::write_self_signed(file(name), recipe, der);
  }
  // The value openssl prints for |option| ("-enddate" gives
  // "notAfter=..."), after the '='.
  std::string openssl_field(const std::string &path, const std::string &option) {
    std::string out = trim(run("openssl x509 -noout " + option + " -in " + quote(path)));
    return out.substr(out.find('=') + 1);
  }
  // The rest of the first line of "openssl x509 -text" holding |label|.
  std::string text_field(const std::string &path, const std::string &label) {
    std::string text = run("openssl x509 -noout -text -in " + quote(path));
    size_t at = text.find(label);
    if (at == std::string::npos) return "";
    size_t end = text.find('\n', at);
    return trim(text.substr(at + label.size(), end - at - label.size()));
  }
  std::string serial_of(const CertRecipe &recipe) {
    std::string path = make("serial.pem", recipe);
    dl_ca_info_ex info;
    dl_cert_result result;
    EXPECT_EQ(dl_get_ca_info_ex(path.c_str(), &info, 0, &result), 0);
    return info.serial;
  }
};

TEST_F(CaInfo, BasicRecordMatchesOpenssl) {
  CertRecipe recipe;
  recipe.subject = "/C=DE/O=Quarry Org/OU=Unit/CN=Info CA";
  std::string path = make("info.pem", recipe);
  dl_ca_info info;
  memset(&info, 'z', sizeof info);
  strcpy(info.path, "kept");
  ASSERT_EQ(dl_get_ca_info(path.c_str(), &info), 0) << log_->text();
  EXPECT_STREQ(info.cn, "Info CA");
  EXPECT_STREQ(info.org, "Quarry Org");
  EXPECT_EQ(info.expiry, openssl_field(path, "-enddate"));
  EXPECT_STREQ(info.expiry, "Dec 31 23:59:59 2049 GMT");
  EXPECT_EQ(info.hash, strtoul(hash_name(path).c_str(), nullptr, 16));
  EXPECT_STREQ(info.path, "kept");
}

TEST_F(CaInfo, BasicRecordOfDerFileLeavesFileAsIs) {
  CertRecipe recipe;
  recipe.subject = "/CN=Der Info";
  std::string path = make("info.der", recipe, true);
  std::string before = quarry_test::read_file(path);
  dl_ca_info info;
  ASSERT_EQ(dl_get_ca_info(path.c_str(), &info), 0);
  EXPECT_STREQ(info.cn, "Der Info");
  EXPECT_STREQ(info.org, "");
  EXPECT_EQ(quarry_test::read_file(path), before);
}

TEST_F(CaInfo, FieldsAreCutToTheirRoomAndTerminated) {
  CertRecipe recipe;
  recipe.subject = "/CN=" + std::string(64, 'c') + "/O=" + std::string(64, 'o');
  std::string path = make("long.pem", recipe);
  dl_ca_info info;
  ASSERT_EQ(dl_get_ca_info(path.c_str(), &info), 0);
  EXPECT_EQ(std::string(info.cn), std::string(63, 'c'));
  EXPECT_EQ(std::string(info.org), std::string(63, 'o'));
  dl_ca_info_ex ex;
  dl_cert_result result;
  ASSERT_EQ(dl_get_ca_info_ex(path.c_str(), &ex, 0, &result), 0);
  EXPECT_EQ(std::string(ex.subject), std::string(63, 'c'));
}

TEST_F(CaInfo, BasicRecordFailures) {
  dl_ca_info info;
  EXPECT_EQ(dl_get_ca_info(nullptr, &info), -1);
  EXPECT_EQ(dl_get_ca_info("x", nullptr), -1);
  EXPECT_EQ(log_->count(2, 3, "Invalid Parameter\n"), 2);
  EXPECT_EQ(dl_get_ca_info(dir_.path().c_str(), &info), -2);
  EXPECT_TRUE(log_->has(2, 5, "path is directory, ret\n"));
  EXPECT_EQ(dl_get_ca_info(file("missing.pem").c_str(), &info), -2);
  EXPECT_TRUE(log_->has(2, 3, "Bio_new_file error filename\n"));
  EXPECT_EQ(dl_get_ca_info(dir_.write("junk", "junk\n").c_str(), &info), -2);
  EXPECT_TRUE(log_->has(2, 3, "unable to load certificate filename\n")) << log_->text();
}

TEST_F(CaInfo, ExtendedRecordMatchesOpenssl) {
  CertRecipe recipe;
  recipe.subject = "/O=Subject Org/OU=Subject Unit/CN=Ext CA";
  recipe.ca = true;
  recipe.extra_extensions = 1;
  std::string path = make("ext.pem", recipe);
  dl_ca_info_ex info;
  dl_cert_result result;
  memset(&result, 'r', sizeof result);
  ASSERT_EQ(dl_get_ca_info_ex(path.c_str(), &info, 0, &result), 0) << log_->text();
  EXPECT_EQ(result.status, 0);
  EXPECT_STREQ(result.msg, "");
  EXPECT_EQ(info.version, 3);
  EXPECT_EQ(info.serial, text_field(path, "Serial Number:"));
  EXPECT_EQ(info.sig_alg, text_field(path, "Signature Algorithm:"));
  EXPECT_STREQ(info.sig_alg, "ecdsa-with-SHA256");
  EXPECT_EQ(info.pubkey_alg, text_field(path, "Public Key Algorithm:"));
  EXPECT_EQ(info.pubkey_bits, 256);
  EXPECT_STREQ(info.issuer, "Ext CA");
  EXPECT_STREQ(info.subject, "Ext CA");
  EXPECT_EQ(info.hash, strtoul(hash_name(path).c_str(), nullptr, 16));
  EXPECT_EQ(info.valid_from, openssl_field(path, "-startdate"));
  EXPECT_EQ(info.valid_to, openssl_field(path, "-enddate"));
  EXPECT_STREQ(info.path, "");
  EXPECT_EQ(info.ext_count, 3);
  EXPECT_STREQ(info.privkey_alg, "");
  EXPECT_EQ(info.privkey_bits, 0);
}

TEST_F(CaInfo, VersionOneCertificateHasNoExtensions) {
  CertRecipe recipe;
  recipe.subject = "/CN=v1";
  cert_test::Key key = cert_test::ec_key();
  cert_test::Cert x = cert_test::make_cert(recipe, key.get());
  X509_set_version(x.get(), 0);
  X509_sign(x.get(), key.get(), EVP_sha256());
  cert_test::write_pem(file("v1.pem"), x.get());
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(dl_get_ca_info_ex(file("v1.pem").c_str(), &info, 0, &result), 0);
  EXPECT_EQ(info.version, 1);
  EXPECT_EQ(info.ext_count, 0);
}

TEST_F(CaInfo, ShortNamePrefersCommonNameThenUnitThenOrganisation) {
  CertRecipe issuer_spec;
  issuer_spec.subject = "/O=Only Org/OU=The Unit";
  cert_test::Key issuer_key = cert_test::ec_key();
  cert_test::Cert issuer = cert_test::make_cert(issuer_spec, issuer_key.get());
  CertRecipe recipe;
  recipe.subject = "/C=DE/O=Leaf Org";
  cert_test::Key key = cert_test::ec_key();
  cert_test::Cert x = cert_test::make_cert(recipe, key.get(), issuer.get(), issuer_key.get());
  cert_test::write_pem(file("leaf.pem"), x.get());
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(dl_get_ca_info_ex(file("leaf.pem").c_str(), &info, 0, &result), 0);
  EXPECT_STREQ(info.issuer, "The Unit");
  EXPECT_STREQ(info.subject, "Leaf Org");
}

TEST_F(CaInfo, FourByteSerialInDecimalAndHexLikeOpenssl) {
  CertRecipe recipe;
  recipe.serial = {0x7f, 0xff, 0xff, 0xfe};
  std::string path = make("serial4.pem", recipe);
  EXPECT_EQ(serial_of(recipe), "2147483646 (0x7ffffffe)");
  EXPECT_EQ(serial_of(recipe), text_field(file("serial.pem"), "Serial Number:"));
}

TEST_F(CaInfo, FiveByteSerialAsHexBytesWithTrailingBlank) {
  CertRecipe recipe;
  recipe.serial = {0x01, 0x02, 0x03, 0xab, 0xcd};
  EXPECT_EQ(serial_of(recipe), "01:02:03:ab:cd ");
  EXPECT_EQ(trim(run("openssl x509 -noout -serial -in " + quote(file("serial.pem")))),
            "serial=010203ABCD");
}

TEST_F(CaInfo, NegativeSerialsCarryTheirSign) {
  CertRecipe recipe;
  recipe.serial = {0x01, 0x00};
  recipe.negative_serial = true;
  EXPECT_EQ(serial_of(recipe), "-256 (-0x100)");
  EXPECT_EQ(serial_of(recipe), text_field(file("serial.pem"), "Serial Number:"));
  recipe.serial = {0x01, 0x02, 0x03, 0x04, 0x05};
  EXPECT_EQ(serial_of(recipe), "(Negative)01:02:03:04:05 ");
}

TEST_F(CaInfo, LongSerialIsCutToTheField) {
  CertRecipe recipe;
  recipe.serial = std::vector<unsigned char>(20, 0x11);
  recipe.negative_serial = true;
  std::string text = serial_of(recipe);
  EXPECT_EQ(text.size(), 63u);
  EXPECT_EQ(text.substr(0, 13), "(Negative)11:");
}

TEST_F(CaInfo, UtcYear49Is2049AndYear50Is1950) {
  CertRecipe recipe;
  recipe.not_before = "500101000000Z";
  recipe.not_after = "491231235959Z";
  std::string path = make("utc.pem", recipe);
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(dl_get_ca_info_ex(path.c_str(), &info, 0, &result), 0);
  EXPECT_STREQ(info.valid_from, "Jan  1 00:00:00 1950 GMT");
  EXPECT_STREQ(info.valid_to, "Dec 31 23:59:59 2049 GMT");
  EXPECT_EQ(info.valid_from, openssl_field(path, "-startdate"));
  EXPECT_EQ(info.valid_to, openssl_field(path, "-enddate"));
}

TEST_F(CaInfo, GeneralizedTimeAfter2049) {
  CertRecipe recipe;
  recipe.not_after = "20600229120000Z";
  std::string path = make("gen.pem", recipe);
  dl_ca_info info;
  ASSERT_EQ(dl_get_ca_info(path.c_str(), &info), 0);
  EXPECT_STREQ(info.expiry, "Feb 29 12:00:00 2060 GMT");
  EXPECT_EQ(info.expiry, openssl_field(path, "-enddate"));
}

TEST_F(CaInfo, ExtendedRecordRewritesDerAsPem) {
  CertRecipe recipe;
  std::string path = make("ext.der", recipe, true);
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(dl_get_ca_info_ex(path.c_str(), &info, 0, &result), 0);
  EXPECT_NE(quarry_test::read_file(path).find("BEGIN CERTIFICATE"), std::string::npos);
  EXPECT_EQ(info.hash, strtoul(hash_name(path).c_str(), nullptr, 16));
}

TEST_F(CaInfo, ClientFlagReadsKeyAfterCertificate) {
  CertRecipe recipe;
  recipe.subject = "/CN=client";
  cert_test::Key key = cert_test::rsa_key(1024);
  cert_test::Cert x = cert_test::make_cert(recipe, key.get());
  cert_test::write_pem(file("client.pem"), x.get());
  cert_test::write_key(file("client.pem"), key.get(), nullptr, true);
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(dl_get_ca_info_ex(file("client.pem").c_str(), &info, 1, &result), 0);
  EXPECT_TRUE(log_->has(2, 6, "client cert\n"));
  EXPECT_STREQ(info.privkey_alg, "rsaEncryption");
  EXPECT_EQ(info.privkey_bits, 1024);
  EXPECT_STREQ(info.pubkey_alg, "rsaEncryption");
  EXPECT_EQ(info.pubkey_bits, 1024);
}

TEST_F(CaInfo, ClientFlagDecryptsKeyWithKeyPassword) {
  CertRecipe recipe;
  cert_test::Key key = cert_test::ec_key();
  cert_test::Cert x = cert_test::make_cert(recipe, key.get());
  cert_test::write_pem(file("client.pem"), x.get());
  cert_test::write_key(file("client.pem"), key.get(), "phone pass", true);
  dl_ca_info_ex info;
  dl_cert_result result;
  ASSERT_EQ(dl_get_ca_info_ex(file("client.pem").c_str(), &info, 1, &result), 0);
  EXPECT_STREQ(info.privkey_alg, "");
  set_text(DL_OPT_KEY_PASSWORD, "phone pass");
  ASSERT_EQ(dl_get_ca_info_ex(file("client.pem").c_str(), &info, 1, &result), 0);
  EXPECT_STREQ(info.privkey_alg, "id-ecPublicKey");
  EXPECT_EQ(info.privkey_bits, 256);
}

TEST_F(CaInfo, ExtendedRecordFailures) {
  dl_ca_info_ex info;
  dl_cert_result result;
  EXPECT_EQ(dl_get_ca_info_ex("x", &info, 0, nullptr), -1);
  EXPECT_EQ(dl_get_ca_info_ex(nullptr, &info, 0, &result), -1);
  EXPECT_EQ(result.status, 1);
  result.status = 0;
  EXPECT_EQ(dl_get_ca_info_ex("x", nullptr, 0, &result), -1);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(log_->count(2, 3, "Invalid Parameter\n"), 3);
  EXPECT_EQ(dl_get_ca_info_ex(dir_.path().c_str(), &info, 0, &result), -1);
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(log_->has(2, 5, "path is directory, ret\n"));
  EXPECT_EQ(dl_get_ca_info_ex(file("missing").c_str(), &info, 0, &result), -1);
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(log_->has(2, 3, "Bio_new_file error filename\n"));
  EXPECT_EQ(dl_get_ca_info_ex(dir_.write("junk", "x").c_str(), &info, 0, &result), -1);
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(log_->has(2, 3, "unable to load certificate filename\n"));
}

}  // namespace

namespace {

// Root reads every file, so the unreadable case runs as nobody.
TEST_F(CaInfo, FileWithoutReadPermissionIsUnreadable) {
  CertRecipe recipe;
  std::string path = make("locked.pem", recipe);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  std::string outcome = quarry_test::run_in_child([&] {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return std::string("setuid");
    if (access(path.c_str(), R_OK) == 0) return std::string("readable");
    dl_ca_info info;
    dl_ca_info_ex ex;
    dl_cert_result result;
    int basic = dl_get_ca_info(path.c_str(), &info);
    int extended = dl_get_ca_info_ex(path.c_str(), &ex, 0, &result);
    int installed = dl_install_ca(path.c_str());
    return std::to_string(basic) + " " + std::to_string(extended) + " " +
           std::to_string(result.status) + " " + std::to_string(installed);
  });
  EXPECT_EQ(outcome, "-2 -1 1 -1");
}

}  // namespace

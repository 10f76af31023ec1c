// quarry cert as a caller runs it: exit status and what it prints.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "cert/cert_test_support.h"
#include "tests/support/log_capture.h"

namespace {

using cert_test::quote;

struct CliRun {
  int status;
  std::string out;
};

CliRun cli(const std::string &args) {
  int status = -1;
  std::string out = cert_test::run(std::string(QUARRY_CLI) + " cert " + args + " 2>&1", &status);
  return {status, out};
}

class CertCli : public ::testing::Test {
 protected:
  void SetUp() override {
    ca_key_ = cert_test::rsa_key(2048);
    cert_test::CertRecipe recipe;
    recipe.subject = "/CN=Cli CA/O=Quarry";
    recipe.ca = true;
    ca_ = cert_test::make_cert(recipe, ca_key_.get());
    cert_test::write_pem(dir_.file("ca.pem"), ca_.get());
    cert_test::write_key(dir_.file("ca.key"), ca_key_.get());
    trust_ = "--trust " + quote(dir_.file("trust"));
  }
  std::string path(const std::string &name) { return quote(dir_.file(name)); }
  quarry_test::TempDir dir_;
  cert_test::Key ca_key_;
  cert_test::Cert ca_;
  std::string trust_;
};

TEST_F(CertCli, InstallListInfoVerifyDelete) {
  CliRun r = cli("install " + path("ca.pem") + " " + trust_);
  ASSERT_EQ(r.status, 0) << r.out;
  std::string hash = cert_test::openssl_hash(dir_.file("ca.pem"));
  EXPECT_EQ(r.out, "installed " + dir_.file("ca.pem") + " as " + dir_.file("trust") + "/" + hash +
                       ".0\n");
  r = cli("install " + path("ca.pem") + " " + trust_);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "quarry: install: a certificate with the same subject is installed already (-2)\n");
  r = cli("list " + trust_);
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Cli CA"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Quarry"), std::string::npos);
  EXPECT_NE(r.out.find(hash + " " + dir_.file("trust") + "/" + hash + ".0"), std::string::npos);
  EXPECT_NE(r.out.find("1 certificate\n"), std::string::npos);
  r = cli("info " + path("ca.pem"));
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("subject:              Cli CA\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("subject hash:         " + hash + "\n"), std::string::npos);
  EXPECT_NE(r.out.find("extensions:           2\n"), std::string::npos);
  r = cli("verify " + path("ca.pem") + " " + trust_);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find(dir_.file("ca.pem") + ": verified\n"), std::string::npos);
  r = cli("delete " + path("ca.pem") + " " + trust_);
  EXPECT_EQ(r.status, 0);
  EXPECT_FALSE(quarry_test::file_exists(dir_.file("trust/" + hash + ".0")));
  r = cli("list " + trust_);
  EXPECT_NE(r.out.find("0 certificates\n"), std::string::npos) << r.out;
}

TEST_F(CertCli, VerifyFailureShowsStatusAndMessage) {
  cert_test::Key key = cert_test::ec_key();
  cert_test::CertRecipe recipe;
  recipe.not_after = "210101000000Z";
  cert_test::Cert x = cert_test::make_cert(recipe, key.get(), ca_.get(), ca_key_.get());
  cert_test::write_pem(dir_.file("old.pem"), x.get());
  CliRun r = cli("verify " + path("old.pem") + " --ca-file " + path("ca.pem"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("quarry: verify: expired (status 5): verify err:certificate has expired\n"),
            std::string::npos)
      << r.out;
}

TEST_F(CertCli, DeviceInstallInfoDelete) {
  std::string device = dir_.file("root/server/WebServer.pem");
  cert_test::Key key = cert_test::ec_key();
  cert_test::CertRecipe recipe;
  recipe.subject = "/CN=phone.local/O=Maker";
  cert_test::Cert x = cert_test::make_cert(recipe, key.get());
  cert_test::write_pem(dir_.file("pair.pem"), x.get());
  cert_test::write_key(dir_.file("pair.pem"), key.get(), nullptr, true);
  std::string opt = " --device " + quote(device);
  CliRun r = cli("device install " + path("pair.pem") + opt);
  EXPECT_EQ(r.status, 0) << r.out;
  r = cli("device install " + path("pair.pem") + opt);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("(-7)"), std::string::npos);
  r = cli("device info" + opt);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("common name:  phone.local\n"), std::string::npos);
  r = cli("device delete" + opt);
  EXPECT_EQ(r.status, 0);
  EXPECT_FALSE(quarry_test::file_exists(device));
  r = cli("device info" + opt);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("no readable device certificate (-2)"), std::string::npos) << r.out;
}

TEST_F(CertCli, CsrAndClientCertificate) {
  CliRun r = cli("csr " + path("req.csr") + " " + path("req.key") +
                 " /CN=phone-7/O=Maker --bits 1024 --set cert_gen_param=abc");
  EXPECT_EQ(r.status, 0) << r.out;
  int status = -1;
  cert_test::run("openssl req -verify -noout -in " + path("req.csr") + " 2>/dev/null", &status);
  EXPECT_EQ(status, 0);
  r = cli("client-cert " + path("ca.pem") + " " + path("ca.key") + " " + path("c.key") + " " +
          path("c.pem") + " /CN=phone-7 --bits 1024 --set cert_gen_param=abc");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(cert_test::run("openssl pkey -pubout -in " + path("c.key")),
            cert_test::run("openssl pkey -pubout -in " + path("req.key")));
}

TEST_F(CertCli, UsageAndMissingTrustDirectory) {
  EXPECT_EQ(cli("").status, 2);
  EXPECT_EQ(cli("frobnicate").status, 2);
  EXPECT_EQ(cli("list --bogus").status, 2);
  CliRun r = cli("install " + path("ca.pem"));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "quarry: no trust directory: give --trust DIR\n");
}

}  // namespace

// Allocation failures in every certificate function: the trust store, the
// device certificate, inspection, verification and generation.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "cert/cert_test_support.h"
#include "quarry.h"
#include "quarry_internal.h"
#include "tests/alloc/alloc_runs.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::AllocOp;
using quarry_test::armed;
using quarry_test::dir_entries;
using quarry_test::file_exists;
using quarry_test::run_alloc_failures;

constexpr int kKeyBits = 1024;

class CertAlloc : public cert_test::CertTest {
 protected:
  void SetUp() override {
    CertTest::SetUp();
    quarry_test::alloc_log_text() = [this] { return log_->text(); };
    quarry_test::alloc_log_clear() = [this] { log_->clear(); };
    ca_ = cert_test::write_self_signed(file("ca.pem"), recipe("/CN=Alloc CA/O=Quarry", true));
    cert_test::Key key = cert_test::ec_key();
    cert_test::Cert cert = cert_test::make_cert(recipe("/CN=Alloc Dev/O=Quarry", false), key.get());
    pair_ = file("pair.pem");
    cert_test::write_pem(pair_, cert.get());
    cert_test::write_key(pair_, key.get(), nullptr, true);
    cert_test::Key ca_key = cert_test::rsa_key(kKeyBits);
    cert_test::Cert signer = cert_test::make_cert(recipe("/CN=Signer/O=Quarry", true), ca_key.get());
    signer_ = file("signer.pem");
    signer_key_ = file("signer.key");
    cert_test::write_pem(signer_, signer.get());
    cert_test::write_key(signer_key_, ca_key.get());
  }
  void TearDown() override {
    quarry_test::alloc_log_text() = nullptr;
    quarry_test::alloc_log_clear() = nullptr;
    CertTest::TearDown();
  }
  static cert_test::CertRecipe recipe(const std::string &subject, bool ca) {
    cert_test::CertRecipe s;
    s.subject = subject;
    s.ca = ca;
    return s;
  }
  // Files and links anywhere under the trust directory.
  size_t trust_files() const {
    std::error_code ec;
    size_t n = 0;
    for (auto it = std::filesystem::recursive_directory_iterator(trust(), ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      if (!it->is_directory()) ++n;
    }
    return n;
  }
  bool trust_empty() const { return trust_files() == 0; }
  void empty_trust() const {
    std::error_code ec;
    std::filesystem::remove_all(trust(), ec);
  }
  void check(const AllocOp &op) {
    quarry_test::AllocRuns runs = run_alloc_failures(op);
    EXPECT_GT(runs.failed + runs.tolerated, 0) << op.name << ": no allocation was counted";
  }

  std::string ca_;
  std::string pair_;
  std::string signer_;
  std::string signer_key_;
};

TEST_F(CertAlloc, InstallCa) {
  check({"dl_install_ca",
         [&](long n, bool *f) {
           empty_trust();
           return armed(n, f, [&] { return dl_install_ca(ca_.c_str()); });
         },
         [&] { return !trust_empty(); }, [&] { return trust_empty(); }});
}

TEST_F(CertAlloc, DelCa) {
  check({"dl_del_ca",
         [&](long n, bool *f) {
           empty_trust();
           if (dl_install_ca(ca_.c_str()) != 0) return 1;
           std::string installed = trust() + "ca/" + *dir_entries(trust() + "ca/").begin();
           return armed(n, f, [&] { return dl_del_ca(installed.c_str()); });
         },
         // dl_del_ca returns 0 whatever happened; a run whose hash could
         // not be computed removes only the name it was given.
         [] { return true; }, [] { return true; }});
}

TEST_F(CertAlloc, GetCaInfo) {
  check({"dl_get_ca_info",
         [&](long n, bool *f) {
           dl_ca_info info = {};
           return armed(n, f, [&] { return dl_get_ca_info(ca_.c_str(), &info); });
         },
         [] { return true; }, [] { return true; }});
}

TEST_F(CertAlloc, GetCaInfoEx) {
  check({"dl_get_ca_info_ex",
         [&](long n, bool *f) {
           dl_ca_info_ex info = {};
           dl_cert_result result = {};
           return armed(n, f, [&] { return dl_get_ca_info_ex(pair_.c_str(), &info, 1, &result); });
         },
         [] { return true; }, [] { return true; }});
}

TEST_F(CertAlloc, GetTrustCaInfo) {
  ASSERT_TRUE(quarry_test::alloc_fail_counts_openssl());
  ASSERT_EQ(dl_install_ca(ca_.c_str()), 0);
  check({"dl_get_trust_ca_info",
         [&](long n, bool *f) {
           dl_ca_list list = {};
           int rc = armed(n, f, [&] { return dl_get_trust_ca_info(&list); });
           return rc == 0 && list.count < 1 ? 1 : rc;
         },
         [&] { return !trust_empty(); }, [&] { return !trust_empty(); }});
  check({"dl_get_trust_ca_info_ex",
         [&](long n, bool *f) {
           static dl_ca_list_ex list;
           list = {};
           dl_cert_result result = {};
           int rc = armed(n, f, [&] { return dl_get_trust_ca_info_ex(&list, &result); });
           return rc == 0 && list.count < 1 ? 1 : rc;
         },
         [&] { return !trust_empty(); }, [&] { return !trust_empty(); }});
}

TEST_F(CertAlloc, DeviceCertificate) {
  check({"dl_install_ser_ca",
         [&](long n, bool *f) {
           dl_del_ser_ca();
           return armed(n, f, [&] { return dl_install_ser_ca(pair_.c_str()); });
         },
         [&] { return file_exists(device()); }, [&] { return !file_exists(device()); }});
  check({"dl_get_ser_ca_info",
         [&](long n, bool *f) {
           dl_ca_info info = {};
           return armed(n, f, [&] { return dl_get_ser_ca_info(&info); });
         },
         [] { return true; }, [] { return true; }});
  check({"dl_install_ser_ca_separate",
         [&](long n, bool *f) {
           dl_del_ser_ca();
           return armed(n, f, [&] { return dl_install_ser_ca_separate(pair_.c_str()); });
         },
         [&] { return file_exists(device()); }, [&] { return !file_exists(device()); }});
}

TEST_F(CertAlloc, Verify) {
  check({"dl_cert_verify",
         [&](long n, bool *f) {
           dl_cert_result result = {};
           return armed(
               n, f, [&] { return dl_cert_verify(ca_.c_str(), nullptr, ca_.c_str(), 0, &result); });
         },
         [] { return true; }, [] { return true; }});
}

TEST_F(CertAlloc, KeyAndRequest) {
  const std::string key = file("k.pem");
  check({"dl_cert_build_rsa_key",
         [&](long n, bool *f) {
           EVP_PKEY *out = nullptr;
           int existed = 0;
           int rc = armed(n, f,
                          [&] { return dl_cert_build_rsa_key(nullptr, kKeyBits, &out, &existed); });
           EVP_PKEY_free(out);
           return rc;
         },
         [] { return true; }, [] { return true; }});
  cert_test::Key k = cert_test::rsa_key(kKeyBits);
  check({"dl_cert_write_key",
         [&](long n, bool *f) {
           unlink(key.c_str());
           return armed(n, f, [&] { return dl_cert_write_key(key.c_str(), 0, k.get()); });
         },
         [&] { return file_exists(key); }, [&] { return !file_exists(key); }});
  const std::string csr = file("r.csr");
  check({"dl_cert_build_csr_req_file",
         [&](long n, bool *f) {
           unlink(csr.c_str());
           return armed(n, f, [&] {
             return dl_cert_build_csr_req_file(csr.c_str(), key.c_str(), "/CN=phone/O=Quarry",
                                               kKeyBits);
           });
         },
         [&] { return file_exists(csr); }, [&] { return !file_exists(csr); }});
  const std::string client = file("client.pem");
  check({"dl_generate_client_cert",
         [&](long n, bool *f) {
           unlink(client.c_str());
           return armed(n, f, [&] {
             return dl_generate_client_cert(signer_.c_str(), signer_key_.c_str(), key.c_str(),
                                            client.c_str(), "/CN=client/O=Quarry", kKeyBits);
           });
         },
         [&] { return file_exists(client); }, [&] { return !file_exists(client); }});
}

}  // namespace

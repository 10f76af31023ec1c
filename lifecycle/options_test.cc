#include <gtest/gtest.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;

int set_number(int id, uint32_t value) { return dl_set_option(id, &value); }

class Options : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_exit();
    dl_config_init();
  }
  void TearDown() override {
    dl_exit();
    libq_log_exit();
  }
};

TEST_F(Options, TimeoutAcceptsOneTo300Only) {
  EXPECT_EQ(set_number(DL_OPT_TIMEOUT, 0), -1);
  EXPECT_EQ(g_dl_cfg.timeout_s, 1);
  EXPECT_EQ(set_number(DL_OPT_TIMEOUT, 301), -1);
  EXPECT_EQ(g_dl_cfg.timeout_s, 1);
  EXPECT_EQ(set_number(DL_OPT_TIMEOUT, 300), 0);
  EXPECT_EQ(g_dl_cfg.timeout_s, 300);
  EXPECT_EQ(set_number(DL_OPT_TIMEOUT, 1), 0);
  EXPECT_EQ(g_dl_cfg.timeout_s, 1);
  EXPECT_EQ(set_number(DL_OPT_TIMEOUT, 0xFFFFFFFFu), -1);
}

TEST_F(Options, AuthRetryRefusesZeroAndNarrowsTo16Bits) {
  EXPECT_EQ(set_number(DL_OPT_AUTH_RETRY, 0), -1);
  EXPECT_EQ(g_dl_cfg.auth_retry_limit, 2);
  EXPECT_EQ(set_number(DL_OPT_AUTH_RETRY, 7), 0);
  EXPECT_EQ(g_dl_cfg.auth_retry_limit, 7);
  EXPECT_EQ(set_number(DL_OPT_AUTH_RETRY, 0x10003), 0);
  EXPECT_EQ(g_dl_cfg.auth_retry_limit, 3);
}

TEST_F(Options, RingEntrySlotTenIsRefused) {
  uint8_t entry[DL_RING_ENTRY_SIZE] = {10, 4, 'x'};
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, entry), -1);
  for (const auto &slot : g_dl_cfg.ring_map) EXPECT_EQ(slot[1], 0);
}

TEST_F(Options, RingEntrySlotNineFillsTheLastSlotWholly) {
  uint8_t entry[DL_RING_ENTRY_SIZE];
  for (size_t i = 0; i < sizeof(entry); ++i) entry[i] = static_cast<uint8_t>(i + 1);
  entry[0] = 9;
  EXPECT_EQ(dl_set_option(DL_OPT_RING_ENTRY, entry), 0);
  EXPECT_EQ(memcmp(g_dl_cfg.ring_map[9], entry, sizeof(entry)), 0);
  EXPECT_EQ(g_dl_cfg.ring_map[8][0], 0);
}

TEST_F(Options, OwnResolverStoresOneForAnyNonZero) {
  EXPECT_EQ(set_number(DL_OPT_USE_OWN_RESOLVER, 7), 0);
  EXPECT_EQ(g_dl_cfg.use_own_resolver, 1u);
  EXPECT_EQ(set_number(DL_OPT_USE_OWN_RESOLVER, 0), 0);
  EXPECT_EQ(g_dl_cfg.use_own_resolver, 0u);
}

TEST_F(Options, ResolvPathOf4097IsRefusedWithLogLine) {
  LogCapture capture;
  std::string too_long(4097, 'r');
  EXPECT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, too_long.c_str()), -1);
  EXPECT_TRUE(capture.has(2, 3, "resolve path len too long\n"));
  EXPECT_STREQ(g_dl_cfg.resolv_conf_path, "/etc/resolv.conf");
}

TEST_F(Options, ResolvPathOfExactly4096IsStoredAndStillTerminated) {
  std::string exact(4096, 'r');
  EXPECT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, exact.c_str()), 0);
  EXPECT_EQ(std::string(g_dl_cfg.resolv_conf_path), exact);
}

TEST_F(Options, HostsPathOf4097IsRefusedWithLogLine) {
  LogCapture capture;
  std::string too_long(4097, 'h');
  EXPECT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, too_long.c_str()), -1);
  EXPECT_TRUE(capture.has(2, 3, "hosts path len too long\n"));
  std::string exact(4096, 'h');
  EXPECT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, exact.c_str()), 0);
  EXPECT_EQ(std::string(g_dl_cfg.hosts_path), exact);
}

TEST_F(Options, ReservedIdsAreRefused) {
  uint32_t value = 1;
  for (int id : {17, 18, 19, 20, 21, 22, 23, 24, 29, 31, 34, 35, 1000, -1}) {
    EXPECT_EQ(dl_set_option(id, &value), -1) << id;
    EXPECT_EQ(dl_set_option(id, "text"), -1) << id;
  }
}

TEST_F(Options, TrustDirAlsoSetsCaPathOnlyWhileEmpty) {
  EXPECT_EQ(dl_set_option(DL_OPT_TRUST_CA_DIR, "/config/certs"), 0);
  EXPECT_STREQ(g_dl_cfg.trust_ca_dir, "/config/certs");
  EXPECT_STREQ(g_dl_cfg.ssl_ca_path, "/config/certs");
  EXPECT_EQ(dl_set_option(DL_OPT_TRUST_CA_DIR, "/other"), 0);
  EXPECT_STREQ(g_dl_cfg.trust_ca_dir, "/other");
  EXPECT_STREQ(g_dl_cfg.ssl_ca_path, "/config/certs");
}

TEST_F(Options, CaPathSetFirstKeepsTrustDirFromTouchingIt) {
  EXPECT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, "/ca"), 0);
  EXPECT_EQ(dl_set_option(DL_OPT_TRUST_CA_DIR, "/store"), 0);
  EXPECT_STREQ(g_dl_cfg.ssl_ca_path, "/ca");
  EXPECT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, "/ca2"), 0);
  EXPECT_STREQ(g_dl_cfg.ssl_ca_path, "/ca2");
}

TEST_F(Options, ServerCertPathAlsoSetsCertPathOnlyWhileEmpty) {
  EXPECT_EQ(dl_set_option(DL_OPT_SERVER_CERT_PATH, "/srv"), 0);
  EXPECT_STREQ(g_dl_cfg.server_cert_path, "/srv");
  EXPECT_STREQ(g_dl_cfg.ssl_cert_path, "/srv");
  EXPECT_EQ(dl_set_option(DL_OPT_SERVER_CERT_PATH, "/srv2"), 0);
  EXPECT_STREQ(g_dl_cfg.ssl_cert_path, "/srv");
  EXPECT_EQ(dl_set_option(DL_OPT_SSL_CERT_PATH, "/mine"), 0);
  EXPECT_STREQ(g_dl_cfg.ssl_cert_path, "/mine");
}

TEST_F(Options, NumberChecksRefuseOutOfRangeValues) {
  const struct {
    int id;
    uint32_t bad;
    uint32_t good;
  } table[] = {
      {DL_OPT_SSL_METHOD, 6, 5},      {DL_OPT_SSL_VERIFY, 2, 1},    {DL_OPT_MAX_REDIRECTS, 6, 0},
      {DL_OPT_IPV6_ENABLE, 2, 1},     {DL_OPT_SSL_CHECK_HOST, 2, 1},
  };
  for (const auto &entry : table) {
    EXPECT_EQ(set_number(entry.id, entry.bad), -1) << entry.id;
    EXPECT_EQ(set_number(entry.id, entry.good), 0) << entry.id;
  }
  EXPECT_EQ(g_dl_cfg.ssl_method, 5u);
  EXPECT_EQ(g_dl_cfg.ssl_verify_peer, 1u);
  EXPECT_EQ(g_dl_cfg.max_redirects, 0u);
  EXPECT_EQ(g_dl_cfg.ipv6_enable, 1);
  EXPECT_EQ(g_dl_cfg.ssl_check_host, 1u);
}

TEST_F(Options, UncheckedNumbersAreStoredNarrowed) {
  EXPECT_EQ(set_number(DL_OPT_MAX_FILE_SIZE, 0xFFFFFFFFu), 0);
  EXPECT_EQ(g_dl_cfg.max_file_size, 0xFFFFFFFFu);
  EXPECT_EQ(set_number(DL_OPT_DATA_TRACE, 0x20002), 0);
  EXPECT_EQ(g_dl_cfg.data_trace, 2);
  EXPECT_EQ(dl_config_data_trace_enable(), 2u);
}

TEST_F(Options, TextOptionsLandInTheirFields) {
  EXPECT_EQ(dl_set_option(DL_OPT_USER_AGENT, "Phone/1.0"), 0);
  EXPECT_EQ(dl_set_option(DL_OPT_TMP_DIR, "/var/tmp"), 0);
  EXPECT_EQ(dl_set_option(DL_OPT_AUX_ID, "aux"), 0);
  EXPECT_EQ(dl_set_option(DL_OPT_KEY_PASSWORD, "secret"), 0);
  EXPECT_EQ(dl_set_option(DL_OPT_CERT_GEN_PARAM, "CN=phone"), 0);
  EXPECT_EQ(dl_set_option(DL_OPT_SSL_CIPHER_LIST, "HIGH"), 0);
  EXPECT_EQ(dl_set_option(DL_OPT_CONFIG_PATH_PREFIX, "/config/"), 0);
  EXPECT_STREQ(g_dl_cfg.user_agent, "Phone/1.0");
  EXPECT_STREQ(g_dl_cfg.tmp_dir, "/var/tmp");
  EXPECT_STREQ(g_dl_cfg.aux_id, "aux");
  EXPECT_STREQ(g_dl_cfg.key_password, "secret");
  EXPECT_STREQ(g_dl_cfg.cert_gen_param, "CN=phone");
  EXPECT_STREQ(g_dl_cfg.ssl_cipher_list, "HIGH");
  EXPECT_STREQ(dl_get_config_path_prefix(), "/config/");
}

TEST_F(Options, PathPrefixCopiesAt127Characters) {
  std::string long_prefix(200, 'p');
  EXPECT_EQ(dl_set_option(DL_OPT_CONFIG_PATH_PREFIX, long_prefix.c_str()), 0);
  EXPECT_EQ(std::string(g_dl_cfg.config_path_prefix), std::string(127, 'p'));
}

TEST_F(Options, AuxIdThatFillsItsFieldIsCutAtTwenty) {
  EXPECT_EQ(dl_set_option(DL_OPT_AUX_ID, "0123456789abcdefghijKLMN"), 0);
  EXPECT_EQ(std::string(g_dl_cfg.aux_id, 20), "0123456789abcdefghij");
  char buf[64];
  memset(buf, 'z', sizeof(buf));
  EXPECT_EQ(dl_get_option(DL_OPT_AUX_ID, buf, sizeof(buf)), 0);
  EXPECT_EQ(std::string(buf), "0123456789abcdefghij");
}

TEST_F(Options, NullValueIsRefusedBeforeInitialising) {
  dl_exit();
  EXPECT_EQ(dl_set_option(DL_OPT_USER_AGENT, nullptr), -1);
  EXPECT_EQ(g_dl_cfg.initialised, 0u);
}

TEST_F(Options, SetInitialisesOnDemand) {
  dl_exit();
  EXPECT_EQ(set_number(DL_OPT_TIMEOUT, 9), 0);
  EXPECT_EQ(g_dl_cfg.initialised, 1u);
  EXPECT_EQ(g_dl_cfg.timeout_s, 9);
  EXPECT_STREQ(g_dl_cfg.user_agent, "Vantrel");
}

TEST_F(Options, GetAnswersTrustDirTmpDirAndAuxId) {
  char buf[64];
  dl_set_option(DL_OPT_TRUST_CA_DIR, "/store");
  dl_set_option(DL_OPT_AUX_ID, "id7");
  EXPECT_EQ(dl_get_option(DL_OPT_TRUST_CA_DIR, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "/store");
  EXPECT_EQ(dl_get_option(DL_OPT_TMP_DIR, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "/tmp");
  EXPECT_EQ(dl_get_option(DL_OPT_AUX_ID, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "id7");
}

TEST_F(Options, GetCopiesLikeStrncpy) {
  char buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(dl_get_option(DL_OPT_TMP_DIR, buf, 3), 0);
  EXPECT_EQ(std::string(buf, 4), "/tmx");
}

TEST_F(Options, GetRefusesOtherIdsNullBufferAndUninitialisedRecord) {
  char buf[64];
  EXPECT_EQ(dl_get_option(DL_OPT_USER_AGENT, buf, sizeof(buf)), -1);
  EXPECT_EQ(dl_get_option(DL_OPT_TRUST_CA_DIR, nullptr, 10), -1);
  dl_exit();
  EXPECT_EQ(dl_get_option(DL_OPT_TRUST_CA_DIR, buf, sizeof(buf)), -1);
  EXPECT_EQ(g_dl_cfg.initialised, 0u);
}

TEST_F(Options, RefusedOptionLeavesRecordUnchanged) {
  dl_config before;
  memcpy(&before, &g_dl_cfg, sizeof(before));
  EXPECT_EQ(set_number(DL_OPT_SSL_METHOD, 99), -1);
  EXPECT_EQ(set_number(DL_OPT_TIMEOUT, 0), -1);
  EXPECT_EQ(memcmp(&before, &g_dl_cfg, sizeof(before)), 0);
}

}  // namespace

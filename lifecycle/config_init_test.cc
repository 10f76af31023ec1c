#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "tls/tls_threads.h"

namespace {

using quarry_test::LogCapture;

class ConfigInit : public ::testing::Test {
 protected:
  void SetUp() override { dl_exit(); }
  void TearDown() override {
    dl_exit();
    libq_log_exit();
  }
};

TEST_F(ConfigInit, RecordIsZeroBeforeInit) {
  EXPECT_EQ(g_dl_cfg.initialised, 0u);
  EXPECT_EQ(g_dl_cfg.user_agent[0], '\0');
  EXPECT_EQ(g_dl_cfg.timeout_s, 0);
}

TEST_F(ConfigInit, WritesDefaults) {
  dl_config_init();
  EXPECT_EQ(g_dl_cfg.initialised, 1u);
  EXPECT_STREQ(g_dl_cfg.config_path_prefix, "/");
  EXPECT_STREQ(g_dl_cfg.user_agent, "Vantrel");
  EXPECT_STREQ(g_dl_cfg.tmp_dir, "/tmp");
  EXPECT_EQ(g_dl_cfg.max_file_size, 2097152u);
  EXPECT_EQ(g_dl_cfg.max_redirects, 5u);
  EXPECT_EQ(g_dl_cfg.timeout_s, 1);
  EXPECT_EQ(g_dl_cfg.auth_retry_limit, 2);
  EXPECT_EQ(g_dl_cfg.use_own_resolver, 0u);
  EXPECT_STREQ(g_dl_cfg.resolv_conf_path, "/etc/resolv.conf");
  EXPECT_STREQ(g_dl_cfg.hosts_path, "/etc/hosts");
  EXPECT_EQ(g_dl_cfg.trust_ca_dir[0], '\0');
  EXPECT_EQ(g_dl_cfg.ssl_ca_path[0], '\0');
  EXPECT_EQ(g_dl_cfg.ssl_method, 0u);
  EXPECT_EQ(g_dl_cfg.ssl_verify_peer, 0u);
  EXPECT_EQ(g_dl_cfg.ipv6_enable, 0);
  EXPECT_EQ(g_dl_cfg.data_trace, 0);
}

TEST_F(ConfigInit, RecordsResolverFileTimes) {
  dl_config_init();
  struct stat st;
  if (stat("/etc/resolv.conf", &st) == 0) {
    EXPECT_EQ(g_dl_cfg.resolv_conf_mtime, static_cast<int32_t>(st.st_mtime));
  }
  if (stat("/etc/hosts", &st) == 0) {
    EXPECT_EQ(g_dl_cfg.hosts_mtime, static_cast<int32_t>(st.st_mtime));
  }
}

TEST_F(ConfigInit, NotesWhetherTheConfigurationToolExists) {
  dl_config_init();
  int expected = access("/boot/bin/cfgserver", F_OK) == 0 ? 1 : 0;
  EXPECT_EQ(dl_config_use_cfgserver(), expected);
  EXPECT_EQ(static_cast<int>(g_dl_cfg.use_cfgserver), expected);
}

TEST_F(ConfigInit, SecondInitKeepsOptionsAndLogsVersionAgain) {
  dl_config_init();
  uint32_t timeout = 42;
  ASSERT_EQ(dl_set_option(DL_OPT_TIMEOUT, &timeout), 0);
  ASSERT_EQ(dl_set_option(DL_OPT_USER_AGENT, "Caller/2"), 0);
  LogCapture capture;
  dl_config_init();
  EXPECT_EQ(g_dl_cfg.timeout_s, 42);
  EXPECT_STREQ(g_dl_cfg.user_agent, "Caller/2");
  EXPECT_TRUE(capture.has(2, 5, "Init config! libquarry Ver:5.4.0.32\n"));
  // The repeated call does not redo OpenSSL's set-up.
  EXPECT_FALSE(capture.mentions("dl_ssl_init"));
}

TEST_F(ConfigInit, FirstInitStartsLoggingOnTheSystemLogAtDefaultThresholds) {
  LogCapture capture;
  dl_config_init();
  // Logging was re-initialised to the system log: the file saw nothing.
  EXPECT_EQ(capture.text(), "");
  for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) EXPECT_EQ(libq_log_get(module), 4);
}

TEST_F(ConfigInit, ExitLogsAndZeroesRecord) {
  dl_config_init();
  uint32_t timeout = 42;
  dl_set_option(DL_OPT_TIMEOUT, &timeout);
  LogCapture capture;
  dl_exit();
  EXPECT_TRUE(capture.has(2, 6, "destroy ssl lock\n"));
  dl_config zero;
  memset(&zero, 0, sizeof(zero));
  EXPECT_EQ(memcmp(&zero, &g_dl_cfg, sizeof(zero)), 0);
}

TEST_F(ConfigInit, InitAfterExitStartsFromDefaults) {
  dl_config_init();
  uint32_t timeout = 42;
  dl_set_option(DL_OPT_TIMEOUT, &timeout);
  dl_exit();
  dl_config_init();
  EXPECT_EQ(g_dl_cfg.timeout_s, 1);
}

TEST_F(ConfigInit, InstallsOpenSslLockArray) {
  dl_config_init();
  ASSERT_EQ(quarry::tls_lock_count(), CRYPTO_num_locks());
  unsigned before = quarry::tls_lock_uses(0);
  quarry::tls_lock_callback(CRYPTO_LOCK, 0, __FILE__, __LINE__);
  quarry::tls_lock_callback(CRYPTO_UNLOCK, 0, __FILE__, __LINE__);
  EXPECT_EQ(quarry::tls_lock_uses(0), before + 1);
  EXPECT_EQ(quarry::tls_thread_id(), static_cast<unsigned long>(pthread_self()));
}

TEST_F(ConfigInit, ExitRemovesLockArrayButKeepsUseCounts) {
  dl_config_init();
  quarry::tls_lock_callback(CRYPTO_LOCK, 0, __FILE__, __LINE__);
  quarry::tls_lock_callback(CRYPTO_UNLOCK, 0, __FILE__, __LINE__);
  unsigned uses = quarry::tls_lock_uses(0);
  dl_exit();
  EXPECT_EQ(quarry::tls_lock_count(), 0);
  EXPECT_EQ(quarry::tls_lock_uses(0), uses);
  // Without the array the callback is a harmless no-op.
  quarry::tls_lock_callback(CRYPTO_LOCK, 0, __FILE__, __LINE__);
}

TEST_F(ConfigInit, RepeatedInitExitCyclesAreClean) {
  for (int i = 0; i < 50; ++i) {
    dl_config_init();
    EXPECT_EQ(g_dl_cfg.initialised, 1u);
    dl_exit();
  }
  EXPECT_EQ(g_dl_cfg.initialised, 0u);
}

TEST_F(ConfigInit, VersionAndPathPrefixGetters) {
  EXPECT_STREQ(dl_get_version(), "5.4.0.32");
  dl_config_init();
  EXPECT_EQ(dl_get_config_path_prefix(), g_dl_cfg.config_path_prefix);
  EXPECT_STREQ(dl_get_config_path_prefix(), "/");
}

TEST_F(ConfigInit, OwnResolverOrderIsHostsThenServers) {
  dl_config_init();
  // The order is refused when too long and accepted when it fits.
  const int three[] = {1, 2, 0};
  EXPECT_EQ(dl_dns_set_resolv_seq(three, 3), -1);
  EXPECT_EQ(dl_dns_set_resolv_seq(nullptr, 1), -1);
  EXPECT_EQ(dl_dns_set_resolv_seq(three, 2), 0);
}

}  // namespace

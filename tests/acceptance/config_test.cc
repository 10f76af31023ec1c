// The settings record and its lifecycle: defaults, every option's check
// and store, reading options back, re-initialisation and tear-down.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/acceptance/capture.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::TempDir;
using ::testing::MatchesRegex;

constexpr unsigned kCommon = 2;
constexpr int kError = 3;
constexpr int kNotice = 5;
constexpr int kInfo = 6;

// The record with its three mutexes blanked, so that two snapshots compare
// equal exactly when no setting changed.
struct Snapshot {
  dl_config copy;
  Snapshot() {
    memcpy(&copy, &g_dl_cfg, sizeof(copy));
    memset(&copy.cfg_lock, 0, sizeof(copy.cfg_lock));
    memset(&copy.resolv_lock, 0, sizeof(copy.resolv_lock));
    memset(&copy.hosts_lock, 0, sizeof(copy.hosts_lock));
  }
  bool operator==(const Snapshot &other) const {
    return memcmp(&copy, &other.copy, sizeof(copy)) == 0;
  }
};

bool record_is_zero() {
  const unsigned char *bytes = reinterpret_cast<const unsigned char *>(&g_dl_cfg);
  for (size_t i = 0; i < sizeof(g_dl_cfg); ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

int set_number(int id, uint32_t value) { return dl_set_option(id, &value); }

class Config : public ::testing::Test {
 protected:
  void SetUp() override { dl_config_init(); }
  void TearDown() override { dl_exit(); }
};

// --- defaults -------------------------------------------------------------

TEST_F(Config, InitMarksTheRecordInitialised) { EXPECT_EQ(1u, g_dl_cfg.initialised); }

TEST_F(Config, InitWritesTextDefaults) {
  EXPECT_STREQ("/", g_dl_cfg.config_path_prefix);
  EXPECT_STREQ("Vantrel", g_dl_cfg.user_agent);
  EXPECT_STREQ("/tmp", g_dl_cfg.tmp_dir);
  EXPECT_STREQ("/etc/resolv.conf", g_dl_cfg.resolv_conf_path);
  EXPECT_STREQ("/etc/hosts", g_dl_cfg.hosts_path);
}

TEST_F(Config, InitWritesNumberDefaults) {
  EXPECT_EQ(2097152u, g_dl_cfg.max_file_size);
  EXPECT_EQ(5u, g_dl_cfg.max_redirects);
  EXPECT_EQ(1u, g_dl_cfg.timeout_s);
  EXPECT_EQ(2u, g_dl_cfg.auth_retry_limit);
  EXPECT_EQ(0u, g_dl_cfg.use_own_resolver);
}

TEST_F(Config, InitLeavesEverythingElseZero) {
  EXPECT_EQ('\0', g_dl_cfg.trust_ca_dir[0]);
  EXPECT_EQ('\0', g_dl_cfg.server_cert_path[0]);
  EXPECT_EQ('\0', g_dl_cfg.ssl_ca_path[0]);
  EXPECT_EQ('\0', g_dl_cfg.ssl_cert_path[0]);
  EXPECT_EQ('\0', g_dl_cfg.key_password[0]);
  EXPECT_EQ('\0', g_dl_cfg.cert_gen_param[0]);
  EXPECT_EQ('\0', g_dl_cfg.ssl_cipher_list[0]);
  EXPECT_EQ('\0', g_dl_cfg.aux_id[0]);
  EXPECT_EQ(0u, g_dl_cfg.ssl_method);
  EXPECT_EQ(0u, g_dl_cfg.ssl_verify_peer);
  EXPECT_EQ(0u, g_dl_cfg.ssl_check_host);
  EXPECT_EQ(0u, g_dl_cfg.ipv6_enable);
  EXPECT_EQ(0u, g_dl_cfg.data_trace);
  EXPECT_EQ(0, g_dl_cfg.resolv_conf_path_end[0]);
  EXPECT_EQ(0, g_dl_cfg.hosts_path_end[0]);
  for (const auto &entry : g_dl_cfg.ring_map) {
    for (uint8_t byte : entry) EXPECT_EQ(0u, byte);
  }
  // The unused text tails are zero too: the record was zeroed first.
  for (size_t i = 2; i < sizeof(g_dl_cfg.config_path_prefix); ++i) {
    EXPECT_EQ('\0', g_dl_cfg.config_path_prefix[i]);
  }
}

TEST_F(Config, InitRecordsTheResolverFileTimes) {
  struct stat st;
  if (stat("/etc/resolv.conf", &st) == 0) {
    EXPECT_EQ(static_cast<int32_t>(st.st_mtime), g_dl_cfg.resolv_conf_mtime);
  }
  if (stat("/etc/hosts", &st) == 0) {
    EXPECT_EQ(static_cast<int32_t>(st.st_mtime), g_dl_cfg.hosts_mtime);
  }
}

TEST_F(Config, UseCfgserverFollowsTheToolsPresence) {
  int expected = access("/boot/bin/cfgserver", F_OK) == 0 ? 1 : 0;
  EXPECT_EQ(static_cast<uint32_t>(expected), g_dl_cfg.use_cfgserver);
  EXPECT_EQ(expected, dl_config_use_cfgserver());
}

TEST_F(Config, VersionIsFixed) { EXPECT_STREQ("5.4.0.32", dl_get_version()); }

TEST(ConfigLoad, VersionNeedsNoInitialisation) { EXPECT_STREQ("5.4.0.32", dl_get_version()); }

// --- the lifecycle --------------------------------------------------------

TEST_F(Config, SecondInitKeepsOptionsAndLogsTheVersionAgain) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, "Agent/2"));
  ASSERT_EQ(0, set_number(DL_OPT_TIMEOUT, 30));
  LogCapture capture;
  dl_config_init();
  EXPECT_STREQ("Agent/2", g_dl_cfg.user_agent);
  EXPECT_EQ(30u, g_dl_cfg.timeout_s);
  EXPECT_TRUE(capture.has(kCommon, kNotice, "Init config! libquarry Ver:5.4.0.32\n"))
      << capture.text();
}

TEST_F(Config, SecondInitDoesNotRedoTheSetUp) {
  LogCapture capture;
  dl_config_init();
  // The logging stays where the caller put it, and OpenSSL is not set up
  // twice.
  EXPECT_FALSE(capture.mentions("dl_ssl_init")) << capture.text();
  EXPECT_FALSE(capture.mentions("create ssl lock")) << capture.text();
  EXPECT_EQ(9, libq_log_get(kCommon));
}

TEST_F(Config, ExitLogsTheLockTearDown) {
  LogCapture capture;
  dl_exit();
  EXPECT_TRUE(capture.has(kCommon, kInfo, "destroy ssl lock\n")) << capture.text();
  dl_config_init();
}

TEST_F(Config, ExitZeroesTheWholeRecord) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_TRUST_CA_DIR, "/data/ca/"));
  dl_exit();
  EXPECT_EQ(0u, g_dl_cfg.initialised);
  EXPECT_TRUE(record_is_zero());
  dl_config_init();
}

TEST_F(Config, InitAfterExitStartsOverFromDefaults) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, "Other"));
  ASSERT_EQ(0, set_number(DL_OPT_MAX_REDIRECTS, 0));
  dl_exit();
  dl_config_init();
  EXPECT_STREQ("Vantrel", g_dl_cfg.user_agent);
  EXPECT_EQ(5u, g_dl_cfg.max_redirects);
}

TEST_F(Config, FirstInitPutsLoggingBackOnTheSystemLog) {
  dl_exit();
  LogCapture capture;
  dl_config_init();
  // The first initialisation re-opens logging to the system log with the
  // default thresholds, so nothing reaches the file any more.
  EXPECT_EQ(4, libq_log_get(kCommon));
  EXPECT_EQ("", capture.text());
}

TEST(ConfigSyslog, InitSwitchesLoggingToTheSystemLog) {
  dl_exit();
  acceptance::SyslogResult result = acceptance::run_with_private_dev_log(
      [](const std::function<bool()> &listen) {
        if (!listen()) return;
        dl_config_init();
        dl_exit();
      });
  ASSERT_TRUE(result.ok);
  ASSERT_FALSE(result.datagrams.empty());
  EXPECT_THAT(result.datagrams[0],
              MatchesRegex("<128>[A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] "
                           "LIBQ\\[" +
                           result.pid +
                           "\\]: DANY<0\\+emerg > LIBQ log :type=1,time=0,E=3,W=4,N=5,I=6,D=7\n"));
}

TEST(ConfigLoad, ExitTwiceIsHarmless) {
  dl_exit();
  dl_exit();
  EXPECT_TRUE(record_is_zero());
}

// --- dl_set_option: arguments and initialisation --------------------------

TEST(ConfigOnDemand, NullValueFailsBeforeInitialising) {
  dl_exit();
  EXPECT_EQ(-1, dl_set_option(DL_OPT_USER_AGENT, nullptr));
  EXPECT_EQ(0u, g_dl_cfg.initialised);
  EXPECT_EQ(-1, dl_set_option(DL_OPT_TIMEOUT, nullptr));
  EXPECT_EQ(0u, g_dl_cfg.initialised);
}

TEST(ConfigOnDemand, SetOptionInitialisesFirst) {
  dl_exit();
  EXPECT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, "Early"));
  EXPECT_EQ(1u, g_dl_cfg.initialised);
  EXPECT_STREQ("Early", g_dl_cfg.user_agent);
  EXPECT_STREQ("/tmp", g_dl_cfg.tmp_dir);
  EXPECT_EQ(1u, g_dl_cfg.timeout_s);
  dl_exit();
}

TEST(ConfigOnDemand, RefusedOptionStillInitialises) {
  dl_exit();
  EXPECT_EQ(-1, set_number(DL_OPT_TIMEOUT, 0));
  EXPECT_EQ(1u, g_dl_cfg.initialised);
  EXPECT_EQ(1u, g_dl_cfg.timeout_s);
  dl_exit();
}

TEST(ConfigOnDemand, GetOptionNeverInitialises) {
  dl_exit();
  char buf[64] = "unchanged";
  EXPECT_EQ(-1, dl_get_option(DL_OPT_TRUST_CA_DIR, buf, sizeof(buf)));
  EXPECT_EQ(0u, g_dl_cfg.initialised);
  EXPECT_STREQ("unchanged", buf);
  EXPECT_EQ(-1, dl_get_option(DL_OPT_TMP_DIR, buf, sizeof(buf)));
  EXPECT_EQ(0u, g_dl_cfg.initialised);
}

TEST_F(Config, UnknownIdsAreRefusedAndChangeNothing) {
  const uint32_t value = 1;
  LogCapture capture;
  for (int id : {17, 18, 19, 20, 21, 22, 23, 24, 29, 31, 34, 35, 100, -1}) {
    Snapshot before;
    EXPECT_EQ(-1, dl_set_option(id, &value)) << "id " << id;
    EXPECT_TRUE(before == Snapshot()) << "id " << id;
  }
  EXPECT_EQ("", capture.text());
}

TEST_F(Config, RefusedNumbersChangeNothingAndLogNothing) {
  struct Case {
    int id;
    uint32_t value;
  };
  const Case cases[] = {{DL_OPT_SSL_METHOD, 6},      {DL_OPT_SSL_METHOD, 0xFFFFFFFFu},
                        {DL_OPT_SSL_VERIFY, 2},      {DL_OPT_MAX_REDIRECTS, 6},
                        {DL_OPT_TIMEOUT, 0},         {DL_OPT_TIMEOUT, 301},
                        {DL_OPT_TIMEOUT, 0xFFFFFFFFu}, {DL_OPT_IPV6_ENABLE, 2},
                        {DL_OPT_SSL_CHECK_HOST, 2},  {DL_OPT_AUTH_RETRY, 0}};
  LogCapture capture;
  for (const Case &c : cases) {
    Snapshot before;
    EXPECT_EQ(-1, set_number(c.id, c.value)) << "id " << c.id << " value " << c.value;
    EXPECT_TRUE(before == Snapshot()) << "id " << c.id << " value " << c.value;
  }
  EXPECT_EQ("", capture.text());
}

// --- text options ---------------------------------------------------------

TEST_F(Config, UserAgentIsStored) {
  EXPECT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, "Phone/1.0"));
  EXPECT_STREQ("Phone/1.0", g_dl_cfg.user_agent);
}

TEST_F(Config, TextFillingTheFieldIsCutWithoutTerminator) {
  std::string text(600, 'u');
  EXPECT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, text.c_str()));
  EXPECT_EQ(0, memcmp(g_dl_cfg.user_agent, text.data(), sizeof(g_dl_cfg.user_agent)));
  // strncpy stops at the field's size: the next field is untouched.
  EXPECT_EQ('\0', g_dl_cfg.trust_ca_dir[0]);
}

TEST_F(Config, ShorterTextPadsTheFieldWithZeros) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, std::string(100, 'x').c_str()));
  ASSERT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, "ab"));
  for (size_t i = 2; i < sizeof(g_dl_cfg.user_agent); ++i) {
    ASSERT_EQ('\0', g_dl_cfg.user_agent[i]) << "byte " << i;
  }
}

// Setting the store directory or the device certificate also sets what
// the TLS handshake uses, unless the caller has set that already.
struct PathPair {
  const char *name;
  int store_id;
  char *store_field;
  int tls_id;
  char *tls_field;
};

class ConfigPathPair : public Config, public ::testing::WithParamInterface<PathPair> {};

TEST_P(ConfigPathPair, StoreOnFreshRecordAlsoSetsTheTlsPath) {
  const PathPair &p = GetParam();
  EXPECT_EQ(0, dl_set_option(p.store_id, "/data/one"));
  EXPECT_STREQ("/data/one", p.store_field);
  EXPECT_STREQ("/data/one", p.tls_field);
}

TEST_P(ConfigPathPair, LaterStoreChangesOnlyTheStore) {
  const PathPair &p = GetParam();
  ASSERT_EQ(0, dl_set_option(p.store_id, "/data/one"));
  EXPECT_EQ(0, dl_set_option(p.store_id, "/data/two"));
  EXPECT_STREQ("/data/two", p.store_field);
  EXPECT_STREQ("/data/one", p.tls_field);
}

TEST_P(ConfigPathPair, TlsPathAfterStoreOverrides) {
  const PathPair &p = GetParam();
  ASSERT_EQ(0, dl_set_option(p.store_id, "/data/one"));
  EXPECT_EQ(0, dl_set_option(p.tls_id, "/tls/own"));
  EXPECT_STREQ("/data/one", p.store_field);
  EXPECT_STREQ("/tls/own", p.tls_field);
}

TEST_P(ConfigPathPair, TlsPathBeforeStoreIsKept) {
  const PathPair &p = GetParam();
  ASSERT_EQ(0, dl_set_option(p.tls_id, "/tls/own"));
  EXPECT_EQ(0, dl_set_option(p.store_id, "/data/one"));
  EXPECT_STREQ("/data/one", p.store_field);
  EXPECT_STREQ("/tls/own", p.tls_field);
}

INSTANTIATE_TEST_SUITE_P(
    StoreAndTls, ConfigPathPair,
    ::testing::Values(PathPair{"TrustCaDir", DL_OPT_TRUST_CA_DIR, g_dl_cfg.trust_ca_dir,
                               DL_OPT_SSL_CA_PATH, g_dl_cfg.ssl_ca_path},
                      PathPair{"ServerCertPath", DL_OPT_SERVER_CERT_PATH,
                               g_dl_cfg.server_cert_path, DL_OPT_SSL_CERT_PATH,
                               g_dl_cfg.ssl_cert_path}),
    [](const ::testing::TestParamInfo<PathPair> &param_info) { return param_info.param.name; });

TEST_F(Config, EmptyTrustCaDirLeavesSslCaPathEmptyAndOpen) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_TRUST_CA_DIR, ""));
  EXPECT_EQ('\0', g_dl_cfg.ssl_ca_path[0]);
  EXPECT_EQ(0, dl_set_option(DL_OPT_TRUST_CA_DIR, "/late/ca/"));
  EXPECT_STREQ("/late/ca/", g_dl_cfg.ssl_ca_path);
}

TEST_F(Config, PlainTextOptionsAreStoredInTheirFields) {
  EXPECT_EQ(0, dl_set_option(DL_OPT_TMP_DIR, "/var/tmp"));
  EXPECT_EQ(0, dl_set_option(DL_OPT_AUX_ID, "aux-7"));
  EXPECT_EQ(0, dl_set_option(DL_OPT_KEY_PASSWORD, "s3cret"));
  EXPECT_EQ(0, dl_set_option(DL_OPT_CERT_GEN_PARAM, "gen-param"));
  EXPECT_EQ(0, dl_set_option(DL_OPT_SSL_CIPHER_LIST, "HIGH:!aNULL"));
  EXPECT_EQ(0, dl_set_option(DL_OPT_CONFIG_PATH_PREFIX, "/config/"));
  EXPECT_STREQ("/var/tmp", g_dl_cfg.tmp_dir);
  EXPECT_STREQ("aux-7", g_dl_cfg.aux_id);
  EXPECT_STREQ("s3cret", g_dl_cfg.key_password);
  EXPECT_STREQ("gen-param", g_dl_cfg.cert_gen_param);
  EXPECT_STREQ("HIGH:!aNULL", g_dl_cfg.ssl_cipher_list);
  EXPECT_STREQ("/config/", g_dl_cfg.config_path_prefix);
}

TEST_F(Config, AuxIdIsCutAtTwentyBytes) {
  ASSERT_EQ(0, set_number(DL_OPT_DATA_TRACE, 2));
  std::string text = "abcdefghijklmnopqrstuvwxyz";
  EXPECT_EQ(0, dl_set_option(DL_OPT_AUX_ID, text.c_str()));
  EXPECT_EQ(0, memcmp(g_dl_cfg.aux_id, text.data(), 20));
  EXPECT_EQ(2u, g_dl_cfg.data_trace);
}

TEST_F(Config, ConfigPathPrefixCopiesAtMost127Bytes) {
  std::string text(200, 'p');
  EXPECT_EQ(0, dl_set_option(DL_OPT_CONFIG_PATH_PREFIX, text.c_str()));
  EXPECT_EQ(0, memcmp(g_dl_cfg.config_path_prefix, text.data(), 127));
  EXPECT_EQ('\0', g_dl_cfg.config_path_prefix[127]);
  EXPECT_EQ(127u, strlen(dl_get_config_path_prefix()));
}

TEST_F(Config, ConfigPathPrefixIsTheFieldItself) {
  EXPECT_EQ(g_dl_cfg.config_path_prefix, dl_get_config_path_prefix());
  EXPECT_STREQ("/", dl_get_config_path_prefix());
}

// --- number options -------------------------------------------------------

TEST_F(Config, SslMethodAcceptsZeroToFive) {
  for (uint32_t v = 0; v <= 5; ++v) {
    EXPECT_EQ(0, set_number(DL_OPT_SSL_METHOD, v));
    EXPECT_EQ(v, g_dl_cfg.ssl_method);
  }
  EXPECT_EQ(-1, set_number(DL_OPT_SSL_METHOD, 6));
  EXPECT_EQ(5u, g_dl_cfg.ssl_method);
}

TEST_F(Config, FlagOptionsAcceptZeroAndOne) {
  struct Flag {
    int id;
    const void *field;
    size_t width;
  };
  const Flag flags[] = {{DL_OPT_SSL_VERIFY, &g_dl_cfg.ssl_verify_peer, 4},
                        {DL_OPT_SSL_CHECK_HOST, &g_dl_cfg.ssl_check_host, 4},
                        {DL_OPT_IPV6_ENABLE, &g_dl_cfg.ipv6_enable, 2}};
  for (const Flag &f : flags) {
    for (uint32_t v : {1u, 0u, 1u}) {
      EXPECT_EQ(0, set_number(f.id, v)) << "id " << f.id;
      uint32_t stored = f.width == 4 ? *static_cast<const uint32_t *>(f.field)
                                     : *static_cast<const uint16_t *>(f.field);
      EXPECT_EQ(v, stored) << "id " << f.id;
    }
    EXPECT_EQ(-1, set_number(f.id, 2)) << "id " << f.id;
    EXPECT_EQ(-1, set_number(f.id, 0xFFFFFFFFu)) << "id " << f.id;
  }
}

TEST_F(Config, MaxRedirectsAcceptsZeroToFive) {
  EXPECT_EQ(0, set_number(DL_OPT_MAX_REDIRECTS, 0));
  EXPECT_EQ(0u, g_dl_cfg.max_redirects);
  EXPECT_EQ(0, set_number(DL_OPT_MAX_REDIRECTS, 3));
  EXPECT_EQ(3u, g_dl_cfg.max_redirects);
  EXPECT_EQ(-1, set_number(DL_OPT_MAX_REDIRECTS, 6));
  EXPECT_EQ(3u, g_dl_cfg.max_redirects);
}

TEST_F(Config, MaxFileSizeTakesAnyValue) {
  EXPECT_EQ(0, set_number(DL_OPT_MAX_FILE_SIZE, 0));
  EXPECT_EQ(0u, g_dl_cfg.max_file_size);
  EXPECT_EQ(0, set_number(DL_OPT_MAX_FILE_SIZE, 0xFFFFFFFFu));
  EXPECT_EQ(0xFFFFFFFFu, g_dl_cfg.max_file_size);
}

TEST_F(Config, TimeoutAcceptsOneTo300) {
  EXPECT_EQ(-1, set_number(DL_OPT_TIMEOUT, 0));
  EXPECT_EQ(-1, set_number(DL_OPT_TIMEOUT, 301));
  EXPECT_EQ(1u, g_dl_cfg.timeout_s);
  EXPECT_EQ(0, set_number(DL_OPT_TIMEOUT, 300));
  EXPECT_EQ(300u, g_dl_cfg.timeout_s);
  EXPECT_EQ(0, set_number(DL_OPT_TIMEOUT, 1));
  EXPECT_EQ(1u, g_dl_cfg.timeout_s);
}

TEST_F(Config, TimeoutValueIsReadAsUnsigned) {
  const int32_t negative = -5;
  EXPECT_EQ(-1, dl_set_option(DL_OPT_TIMEOUT, &negative));
  EXPECT_EQ(1u, g_dl_cfg.timeout_s);
}

TEST_F(Config, AuthRetryRefusesZeroAndNarrowsTo16Bits) {
  EXPECT_EQ(-1, set_number(DL_OPT_AUTH_RETRY, 0));
  EXPECT_EQ(2u, g_dl_cfg.auth_retry_limit);
  EXPECT_EQ(0, set_number(DL_OPT_AUTH_RETRY, 7));
  EXPECT_EQ(7u, g_dl_cfg.auth_retry_limit);
  EXPECT_EQ(0, set_number(DL_OPT_AUTH_RETRY, 0x12345));
  EXPECT_EQ(0x2345u, g_dl_cfg.auth_retry_limit);
}

TEST_F(Config, AuthRetryChecksTheValueBeforeNarrowing) {
  // 0x10000 is not zero, so it passes the check and narrows to 0.
  EXPECT_EQ(0, set_number(DL_OPT_AUTH_RETRY, 0x10000));
  EXPECT_EQ(0u, g_dl_cfg.auth_retry_limit);
}

TEST_F(Config, DataTraceTakesAnyValueNarrowedTo16Bits) {
  EXPECT_EQ(0, set_number(DL_OPT_DATA_TRACE, 2));
  EXPECT_EQ(2u, g_dl_cfg.data_trace);
  EXPECT_EQ(2u, dl_config_data_trace_enable());
  EXPECT_EQ(0, set_number(DL_OPT_DATA_TRACE, 0x10003));
  EXPECT_EQ(3u, g_dl_cfg.data_trace);
  EXPECT_EQ(3u, dl_config_data_trace_enable());
}

TEST_F(Config, DataTraceDefaultsToZero) { EXPECT_EQ(0u, dl_config_data_trace_enable()); }

TEST_F(Config, UseOwnResolverStoresOneForAnyNonZero) {
  EXPECT_EQ(0, set_number(DL_OPT_USE_OWN_RESOLVER, 7));
  EXPECT_EQ(1u, g_dl_cfg.use_own_resolver);
  EXPECT_EQ(0, set_number(DL_OPT_USE_OWN_RESOLVER, 0));
  EXPECT_EQ(0u, g_dl_cfg.use_own_resolver);
  EXPECT_EQ(0, set_number(DL_OPT_USE_OWN_RESOLVER, 0x100));
  EXPECT_EQ(1u, g_dl_cfg.use_own_resolver);
}

// --- ring entries ---------------------------------------------------------

TEST_F(Config, RingEntryForSlotNineFillsTheLastSlot) {
  uint8_t entry[DL_RING_ENTRY_SIZE];
  for (size_t i = 0; i < sizeof(entry); ++i) entry[i] = static_cast<uint8_t>(i + 1);
  entry[0] = 9;
  entry[1] = 4;
  EXPECT_EQ(0, dl_set_option(DL_OPT_RING_ENTRY, entry));
  EXPECT_EQ(0, memcmp(g_dl_cfg.ring_map[9], entry, sizeof(entry)));
  for (int slot = 0; slot < 9; ++slot) EXPECT_EQ(0u, g_dl_cfg.ring_map[slot][0]);
}

TEST_F(Config, RingEntryForSlotZeroFillsTheFirstSlot) {
  uint8_t entry[DL_RING_ENTRY_SIZE] = {0, 3};
  memcpy(entry + 2, "Family", 7);
  EXPECT_EQ(0, dl_set_option(DL_OPT_RING_ENTRY, entry));
  EXPECT_EQ(0, memcmp(g_dl_cfg.ring_map[0], entry, sizeof(entry)));
}

TEST_F(Config, RingEntryReplacesAllBytesOfItsSlot) {
  uint8_t first[DL_RING_ENTRY_SIZE];
  memset(first, 0x55, sizeof(first));
  first[0] = 4;
  ASSERT_EQ(0, dl_set_option(DL_OPT_RING_ENTRY, first));
  uint8_t second[DL_RING_ENTRY_SIZE] = {4, 1, 'a', 0};
  EXPECT_EQ(0, dl_set_option(DL_OPT_RING_ENTRY, second));
  EXPECT_EQ(0, memcmp(g_dl_cfg.ring_map[4], second, sizeof(second)));
}

TEST_F(Config, RingEntryBeyondSlotNineIsRefused) {
  uint8_t entry[DL_RING_ENTRY_SIZE] = {10, 1, 'x', 0};
  Snapshot before;
  EXPECT_EQ(-1, dl_set_option(DL_OPT_RING_ENTRY, entry));
  entry[0] = 255;
  EXPECT_EQ(-1, dl_set_option(DL_OPT_RING_ENTRY, entry));
  EXPECT_TRUE(before == Snapshot());
}

// --- resolver and hosts paths ---------------------------------------------

TEST_F(Config, ResolvPathOfExactly4096IsStoredAndTerminated) {
  std::string path = "/" + std::string(4095, 'r');
  EXPECT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, path.c_str()));
  EXPECT_EQ(0, memcmp(g_dl_cfg.resolv_conf_path, path.data(), 4096));
  EXPECT_EQ(0, g_dl_cfg.resolv_conf_path_end[0]);
}

TEST_F(Config, ResolvPathOf4097IsRefusedWithItsLine) {
  std::string path = "/" + std::string(4096, 'r');
  LogCapture capture;
  Snapshot before;
  EXPECT_EQ(-1, dl_set_option(DL_OPT_RESOLV_CONF_PATH, path.c_str()));
  EXPECT_TRUE(before == Snapshot());
  EXPECT_EQ(LogCapture::line(kCommon, kError, "resolve path len too long\n"), capture.text());
}

TEST_F(Config, HostsPathOfExactly4096IsStoredAndTerminated) {
  std::string path = "/" + std::string(4095, 'h');
  EXPECT_EQ(0, dl_set_option(DL_OPT_HOSTS_PATH, path.c_str()));
  EXPECT_EQ(0, memcmp(g_dl_cfg.hosts_path, path.data(), 4096));
  EXPECT_EQ(0, g_dl_cfg.hosts_path_end[0]);
}

TEST_F(Config, HostsPathOf4097IsRefusedWithItsLine) {
  std::string path = "/" + std::string(4096, 'h');
  LogCapture capture;
  Snapshot before;
  EXPECT_EQ(-1, dl_set_option(DL_OPT_HOSTS_PATH, path.c_str()));
  EXPECT_TRUE(before == Snapshot());
  EXPECT_EQ(LogCapture::line(kCommon, kError, "hosts path len too long\n"), capture.text());
}

TEST_F(Config, ShortPathsReplaceLongerOnes) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, "/some/long/path/resolv.conf"));
  EXPECT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, "/r"));
  EXPECT_STREQ("/r", g_dl_cfg.resolv_conf_path);
  ASSERT_EQ(0, dl_set_option(DL_OPT_HOSTS_PATH, "/some/long/path/hosts"));
  EXPECT_EQ(0, dl_set_option(DL_OPT_HOSTS_PATH, "/h"));
  EXPECT_STREQ("/h", g_dl_cfg.hosts_path);
}

TEST_F(Config, SettingResolverPathsReloadsNothing) {
  TempDir dir;
  std::string resolv = dir.write("resolv.conf", "nameserver 192.0.2.1\n");
  std::string hosts = dir.write("hosts", "192.0.2.2 box\n");
  const int32_t resolv_time = g_dl_cfg.resolv_conf_mtime;
  const int32_t hosts_time = g_dl_cfg.hosts_mtime;
  EXPECT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv.c_str()));
  EXPECT_EQ(0, dl_set_option(DL_OPT_HOSTS_PATH, hosts.c_str()));
  EXPECT_EQ(resolv_time, g_dl_cfg.resolv_conf_mtime);
  EXPECT_EQ(hosts_time, g_dl_cfg.hosts_mtime);
}

TEST_F(Config, AcceptedOptionsLogNothing) {
  LogCapture capture;
  ASSERT_EQ(0, dl_set_option(DL_OPT_USER_AGENT, "quiet"));
  ASSERT_EQ(0, set_number(DL_OPT_TIMEOUT, 10));
  ASSERT_EQ(0, dl_set_option(DL_OPT_RESOLV_CONF_PATH, "/tmp/resolv.conf"));
  EXPECT_EQ("", capture.text());
}

// --- dl_get_option --------------------------------------------------------

TEST_F(Config, GetOptionAnswersTheThreeTextOptions) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_TRUST_CA_DIR, "/data/ca/"));
  ASSERT_EQ(0, dl_set_option(DL_OPT_AUX_ID, "aux"));
  char buf[64];
  EXPECT_EQ(0, dl_get_option(DL_OPT_TRUST_CA_DIR, buf, sizeof(buf)));
  EXPECT_STREQ("/data/ca/", buf);
  EXPECT_EQ(0, dl_get_option(DL_OPT_TMP_DIR, buf, sizeof(buf)));
  EXPECT_STREQ("/tmp", buf);
  EXPECT_EQ(0, dl_get_option(DL_OPT_AUX_ID, buf, sizeof(buf)));
  EXPECT_STREQ("aux", buf);
}

TEST_F(Config, GetOptionRefusesEveryOtherId) {
  char buf[64] = "unchanged";
  for (int id : {0, 2, 3, 11, 12, 15, 16, 25, 26, 28, 30, 32, 33, 34, -1}) {
    EXPECT_EQ(-1, dl_get_option(id, buf, sizeof(buf))) << "id " << id;
  }
  EXPECT_STREQ("unchanged", buf);
}

TEST_F(Config, GetOptionOfAFullAuxIdGivesItsTwentyBytes) {
  ASSERT_EQ(0, dl_set_option(DL_OPT_AUX_ID, "abcdefghijklmnopqrstuvwxyz"));
  char buf[64];
  memset(buf, 'X', sizeof(buf));
  EXPECT_EQ(0, dl_get_option(DL_OPT_AUX_ID, buf, sizeof(buf)));
  EXPECT_STREQ("abcdefghijklmnopqrst", buf);
}

TEST_F(Config, GetOptionRefusesNullBuffer) {
  EXPECT_EQ(-1, dl_get_option(DL_OPT_TMP_DIR, nullptr, 16));
}

TEST_F(Config, GetOptionCopiesLikeStrncpy) {
  char buf[16];
  memset(buf, 'X', sizeof(buf));
  EXPECT_EQ(0, dl_get_option(DL_OPT_TMP_DIR, buf, 2));
  EXPECT_EQ('/', buf[0]);
  EXPECT_EQ('t', buf[1]);
  EXPECT_EQ('X', buf[2]);
  memset(buf, 'X', sizeof(buf));
  EXPECT_EQ(0, dl_get_option(DL_OPT_TMP_DIR, buf, 10));
  EXPECT_EQ(0, memcmp(buf, "/tmp\0\0\0\0\0\0", 10));
  EXPECT_EQ('X', buf[10]);
}

TEST(ConfigLoad, GetOptionBeforeInitialisationFails) {
  dl_exit();
  char buf[16];
  EXPECT_EQ(-1, dl_get_option(DL_OPT_TRUST_CA_DIR, buf, sizeof(buf)));
  EXPECT_EQ(-1, dl_get_option(DL_OPT_AUX_ID, buf, sizeof(buf)));
}

TEST_F(Config, GetOptionOfIdZeroFailsWhenInitialised) {
  char buf[16];
  EXPECT_EQ(-1, dl_get_option(DL_OPT_USER_AGENT, buf, sizeof(buf)));
}

// --- concurrency ----------------------------------------------------------

TEST_F(Config, ConcurrentReadersNeverSeeAHalfWrittenSetting) {
  // Two long texts that differ in every byte: a read without the lock
  // would sooner or later mix them.
  const std::string first(400, 'a');
  const std::string second(400, 'b');
  ASSERT_EQ(0, dl_set_option(DL_OPT_TRUST_CA_DIR, first.c_str()));
  constexpr int kRounds = 2000;
  std::vector<std::thread> writers;
  for (const std::string *text : {&first, &second}) {
    writers.emplace_back([text]() {
      for (int i = 0; i < kRounds; ++i) dl_set_option(DL_OPT_TRUST_CA_DIR, text->c_str());
    });
  }
  int torn = 0;
  for (int i = 0; i < kRounds; ++i) {
    char buf[512];
    if (dl_get_option(DL_OPT_TRUST_CA_DIR, buf, sizeof(buf)) != 0) continue;
    if (buf != first && buf != second) ++torn;
  }
  for (std::thread &writer : writers) writer.join();
  EXPECT_EQ(0, torn);
}

// --- readers without initialisation ---------------------------------------

TEST(ConfigLoad, ReadersOfAnUninitialisedRecordGiveZero) {
  dl_exit();
  EXPECT_EQ(0u, dl_config_data_trace_enable());
  EXPECT_EQ(0, dl_config_use_cfgserver());
  EXPECT_EQ(g_dl_cfg.config_path_prefix, dl_get_config_path_prefix());
  EXPECT_EQ(0u, g_dl_cfg.initialised);
}

}  // namespace

// Bringing the library up and down: defaults, logging, the resolver
// context and files, and OpenSSL with its thread locks.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "core/core.h"
#include "tls/tls_threads.h"

namespace {

constexpr char kDefaultPathPrefix[] = "/";
constexpr char kDefaultUserAgent[] = "Vantrel";
constexpr char kDefaultTmpDir[] = "/tmp";
constexpr char kDefaultResolvConf[] = "/etc/resolv.conf";
constexpr char kDefaultHosts[] = "/etc/hosts";
constexpr char kCfgServerPath[] = "/boot/bin/cfgserver";
constexpr uint32_t kDefaultMaxFileSize = 0x200000;
constexpr uint32_t kDefaultMaxRedirects = 5;
constexpr uint16_t kDefaultTimeoutSeconds = 1;
constexpr uint16_t kDefaultAuthRetryLimit = 2;
// The own resolver asks the hosts file first, then the name servers.
constexpr int kDefaultResolvSeq[] = {1, 2};

void write_defaults() {
  quarry::copy_text_field(g_dl_cfg.config_path_prefix, kDefaultPathPrefix, sizeof(g_dl_cfg.config_path_prefix) - 1);
  quarry::copy_text_field(g_dl_cfg.user_agent, kDefaultUserAgent, sizeof(g_dl_cfg.user_agent));
  quarry::copy_text_field(g_dl_cfg.tmp_dir, kDefaultTmpDir, sizeof(g_dl_cfg.tmp_dir));
  g_dl_cfg.max_file_size = kDefaultMaxFileSize;
  g_dl_cfg.max_redirects = kDefaultMaxRedirects;
  g_dl_cfg.timeout_s = kDefaultTimeoutSeconds;
  g_dl_cfg.auth_retry_limit = kDefaultAuthRetryLimit;
  g_dl_cfg.use_own_resolver = 0;
}

// Loading failures are not reported: the library starts without the file
// and picks it up when it changes.
void load_resolver_files() {
  dns_ctx_init();

  quarry::copy_text_field(g_dl_cfg.resolv_conf_path, kDefaultResolvConf, sizeof(g_dl_cfg.resolv_conf_path));
  {
    quarry::MutexGuard lock(&g_dl_cfg.resolv_lock);
    time_t mtime = 0;
    if (dl_get_file_mtime(g_dl_cfg.resolv_conf_path, &mtime) == 0) {
      g_dl_cfg.resolv_conf_mtime = static_cast<int32_t>(mtime);
    }
    dns_load_resolv_conf(g_dl_cfg.resolv_conf_path);
  }

  quarry::copy_text_field(g_dl_cfg.hosts_path, kDefaultHosts, sizeof(g_dl_cfg.hosts_path));
  {
    quarry::MutexGuard lock(&g_dl_cfg.hosts_lock);
    time_t mtime = 0;
    if (dl_get_file_mtime(g_dl_cfg.hosts_path, &mtime) == 0) {
      g_dl_cfg.hosts_mtime = static_cast<int32_t>(mtime);
    }
    dns_load_hosts(g_dl_cfg.hosts_path);
  }

  dl_dns_set_resolv_seq(kDefaultResolvSeq, 2);
}

void init_openssl() {
  libq_log(quarry::kModCommon, quarry::kLogInfo, "dl_ssl_init\n");
  SSL_library_init();
  SSL_load_error_strings();
  SSL_library_init();
  libq_log(quarry::kModCommon, quarry::kLogInfo, "create ssl lock\n");
  quarry::tls_locks_install();
}

}  // namespace

extern "C" {

DL_EXPORT void dl_config_init(void) {
  if (g_dl_cfg.initialised != 1) {
    dl_log_new_init(DL_LOG_TYPE_SYSLOG, 0, nullptr);

    memset(&g_dl_cfg, 0, sizeof(g_dl_cfg));
    g_dl_cfg.initialised = 1;
    pthread_mutex_init(&g_dl_cfg.cfg_lock, nullptr);
    pthread_mutex_init(&g_dl_cfg.resolv_lock, nullptr);
    pthread_mutex_init(&g_dl_cfg.hosts_lock, nullptr);

    write_defaults();
    load_resolver_files();
    init_openssl();

    if (access(kCfgServerPath, F_OK) == 0) g_dl_cfg.use_cfgserver = 1;
  }
  libq_log(quarry::kModCommon, quarry::kLogNotice, "Init config! libquarry Ver:%s\n",
           dl_get_version());
}

DL_EXPORT void dl_exit(void) {
  dns_ctx_destroy();

  libq_log(quarry::kModCommon, quarry::kLogInfo, "destroy ssl lock\n");
  quarry::tls_locks_remove();

  pthread_mutex_destroy(&g_dl_cfg.cfg_lock);
  pthread_mutex_destroy(&g_dl_cfg.resolv_lock);
  pthread_mutex_destroy(&g_dl_cfg.hosts_lock);

  memset(&g_dl_cfg, 0, sizeof(g_dl_cfg));
}

}  // extern "C"

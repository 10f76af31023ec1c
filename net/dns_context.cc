// The resolver context's life: made at the library's initialisation, its
// lists emptied and its locks destroyed at exit; and the resolver settings
// with their setters.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "net/dns_context.h"

namespace {

constexpr int kDefaultTimeoutSeconds = 5;
constexpr int kDefaultPasses = 2;

// Zero-filled storage is what glibc's static initialisers are, so the
// locks are usable even before dns_ctx_init has run.
dns_conf_base_st g_ctx = {PTHREAD_RWLOCK_INITIALIZER, 0,       nullptr, nullptr,
                          PTHREAD_RWLOCK_INITIALIZER, 0,       nullptr, nullptr};

struct SettingsState {
  pthread_mutex_t lock;
  quarry::DnsSettings values;
};
SettingsState g_settings = {PTHREAD_MUTEX_INITIALIZER, {0, 0, {0, 0}}};

}  // namespace

namespace quarry {

dns_conf_base_st *dns_context() { return &g_ctx; }

DnsSettings dns_settings() {
  MutexGuard lock(&g_settings.lock);
  return g_settings.values;
}

namespace {

template <typename Entry>
void free_list(Entry **head, Entry **tail, int *count) {
  Entry *entry = *head;
  while (entry != nullptr) {
    Entry *next = entry->next;
    free(entry);
    entry = next;
  }
  *head = nullptr;
  *tail = nullptr;
  *count = 0;
}

}  // namespace

void free_servers(dns_conf_base_st *ctx) {
  free_list(&ctx->server_head, &ctx->server_tail, &ctx->server_count);
}

void free_hosts(dns_conf_base_st *ctx) {
  free_list(&ctx->hosts_head, &ctx->hosts_tail, &ctx->hosts_count);
}

}  // namespace quarry

extern "C" {

DL_EXPORT int dns_conf_base_st_init(dns_conf_base_st *ctx) {
  if (ctx == nullptr) return -1;
  ctx->server_count = 0;
  ctx->server_head = nullptr;
  ctx->server_tail = nullptr;
  ctx->hosts_count = 0;
  ctx->hosts_head = nullptr;
  ctx->hosts_tail = nullptr;
  int rc = pthread_rwlock_init(&ctx->server_lock, nullptr);
  if (rc != 0) return rc;
  rc = pthread_rwlock_init(&ctx->hosts_lock, nullptr);
  if (rc != 0) pthread_rwlock_destroy(&ctx->server_lock);
  return rc;
}

DL_EXPORT int dns_conf_base_st_destroy(dns_conf_base_st *ctx) {
  if (ctx == nullptr) return -1;
  dns_resolv_conf_destroy_real(ctx);
  dns_hosts_conf_destroy_real(ctx);
  int rc = pthread_rwlock_destroy(&ctx->server_lock);
  int rc_hosts = pthread_rwlock_destroy(&ctx->hosts_lock);
  return rc != 0 ? rc : rc_hosts;
}

DL_EXPORT int dns_resolv_conf_destroy_real(dns_conf_base_st *ctx) {
  if (ctx == nullptr) return -1;
  quarry::RwGuard lock(&ctx->server_lock, true);
  quarry::free_servers(ctx);
  return 0;
}

DL_EXPORT int dns_hosts_conf_destroy_real(dns_conf_base_st *ctx) {
  if (ctx == nullptr) return -1;
  quarry::RwGuard lock(&ctx->hosts_lock, true);
  quarry::free_hosts(ctx);
  return 0;
}

DL_EXPORT int dns_resolv_conf_destroy(void) { return dns_resolv_conf_destroy_real(&g_ctx); }

DL_EXPORT int dns_hosts_conf_destroy(void) { return dns_hosts_conf_destroy_real(&g_ctx); }

DL_EXPORT int dns_conf_destroy(void) {
  dns_resolv_conf_destroy();
  dns_hosts_conf_destroy();
  return 0;
}

DL_EXPORT int dns_ctx_init(void) {
  srand(static_cast<unsigned>(time(nullptr)));
  memset(&g_ctx, 0, sizeof(g_ctx));
  int rc = dns_conf_base_st_init(&g_ctx);
  if (rc != 0) return rc;
  rc = pthread_mutex_init(&g_settings.lock, nullptr);
  if (rc != 0) return rc;
  g_settings.values = {kDefaultTimeoutSeconds, kDefaultPasses, {0, 0}};
  return 0;
}

DL_EXPORT int dns_ctx_destroy(void) {
  dns_conf_destroy();
  int rc = dns_conf_base_st_destroy(&g_ctx);
  int rc_settings = pthread_mutex_destroy(&g_settings.lock);
  // Cleared storage is a usable, empty context again (see g_ctx).
  memset(&g_ctx, 0, sizeof(g_ctx));
  memset(&g_settings, 0, sizeof(g_settings));
  return rc != 0 ? rc : rc_settings;
}

DL_EXPORT int dl_dns_set_timeout(int seconds) {
  if (seconds < 1) return -1;
  quarry::MutexGuard lock(&g_settings.lock);
  g_settings.values.timeout_s = seconds;
  return 0;
}

DL_EXPORT int dl_dns_set_nretry(int passes) {
  if (passes < 1) return -1;
  quarry::MutexGuard lock(&g_settings.lock);
  g_settings.values.passes = passes;
  return 0;
}

DL_EXPORT int dl_dns_set_resolv_seq(const int *seq, int count) {
  if (seq == nullptr || count > quarry::kDnsSeqEntries) return -1;
  quarry::MutexGuard lock(&g_settings.lock);
  memset(g_settings.values.seq, 0, sizeof(g_settings.values.seq));
  for (int i = 0; i < count; ++i) g_settings.values.seq[i] = seq[i];
  return 0;
}

}  // extern "C"

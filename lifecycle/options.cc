// Setting and reading options of the settings record.
#include <string.h>

#include "core/core.h"

namespace {

constexpr uint32_t kMaxSslMethod = 5;
constexpr uint32_t kMaxRedirects = 5;
constexpr uint32_t kMaxTimeoutSeconds = 300;
constexpr size_t kPathPrefixCopy = 127;

uint32_t number_of(const void *value) {
  uint32_t number;
  memcpy(&number, value, sizeof(number));
  return number;
}

// The store for text options: strncpy with the field's count, so a text
// that fills it is left unterminated, as callers have always had it.
template <size_t N>
void store_text(char (&field)[N], const void *value, size_t count = N) {
  quarry::copy_text_field(field, static_cast<const char *>(value), count);
}

int store_path(char (&field)[DL_PATH_MAX_LEN], const void *value, const char *too_long_line) {
  if (strlen(static_cast<const char *>(value)) > DL_PATH_MAX_LEN) {
    libq_log(quarry::kModCommon, quarry::kLogError, "%s", too_long_line);
    return -1;
  }
  quarry::CfgLock lock;
  store_text(field, value);
  return 0;
}

int store_text_option(int id, const void *value) {
  quarry::CfgLock lock;
  switch (id) {
    case DL_OPT_USER_AGENT:
      store_text(g_dl_cfg.user_agent, value);
      return 0;
    case DL_OPT_TRUST_CA_DIR:
      // The store directory is also what the handshake trusts, unless the
      // caller has named a CA path already.
      store_text(g_dl_cfg.trust_ca_dir, value);
      if (g_dl_cfg.ssl_ca_path[0] == '\0') store_text(g_dl_cfg.ssl_ca_path, value);
      return 0;
    case DL_OPT_SERVER_CERT_PATH:
      store_text(g_dl_cfg.server_cert_path, value);
      if (g_dl_cfg.ssl_cert_path[0] == '\0') store_text(g_dl_cfg.ssl_cert_path, value);
      return 0;
    case DL_OPT_SSL_CA_PATH:
      store_text(g_dl_cfg.ssl_ca_path, value);
      return 0;
    case DL_OPT_SSL_CERT_PATH:
      store_text(g_dl_cfg.ssl_cert_path, value);
      return 0;
    case DL_OPT_TMP_DIR:
      store_text(g_dl_cfg.tmp_dir, value);
      return 0;
    case DL_OPT_AUX_ID:
      store_text(g_dl_cfg.aux_id, value);
      return 0;
    case DL_OPT_KEY_PASSWORD:
      store_text(g_dl_cfg.key_password, value);
      return 0;
    case DL_OPT_CERT_GEN_PARAM:
      store_text(g_dl_cfg.cert_gen_param, value);
      return 0;
    case DL_OPT_SSL_CIPHER_LIST:
      store_text(g_dl_cfg.ssl_cipher_list, value);
      return 0;
    case DL_OPT_CONFIG_PATH_PREFIX:
      store_text(g_dl_cfg.config_path_prefix, value, kPathPrefixCopy);
      return 0;
    default:
      return -1;
  }
}

// Number options: the value is checked first; nothing is stored when the
// check fails.
int store_number_option(int id, uint32_t number) {
  quarry::CfgLock lock;
  switch (id) {
    case DL_OPT_SSL_METHOD:
      if (number > kMaxSslMethod) return -1;
      g_dl_cfg.ssl_method = number;
      return 0;
    case DL_OPT_SSL_VERIFY:
      if (number > 1) return -1;
      g_dl_cfg.ssl_verify_peer = number;
      return 0;
    case DL_OPT_MAX_REDIRECTS:
      if (number > kMaxRedirects) return -1;
      g_dl_cfg.max_redirects = number;
      return 0;
    case DL_OPT_MAX_FILE_SIZE:
      g_dl_cfg.max_file_size = number;
      return 0;
    case DL_OPT_TIMEOUT:
      if (number - 1 >= kMaxTimeoutSeconds) return -1;
      g_dl_cfg.timeout_s = static_cast<uint16_t>(number);
      return 0;
    case DL_OPT_IPV6_ENABLE:
      if (number > 1) return -1;
      g_dl_cfg.ipv6_enable = static_cast<uint16_t>(number);
      return 0;
    case DL_OPT_SSL_CHECK_HOST:
      if (number > 1) return -1;
      g_dl_cfg.ssl_check_host = number;
      return 0;
    case DL_OPT_AUTH_RETRY:
      if (number == 0) return -1;
      g_dl_cfg.auth_retry_limit = static_cast<uint16_t>(number);
      return 0;
    case DL_OPT_DATA_TRACE:
      g_dl_cfg.data_trace = static_cast<uint16_t>(number);
      return 0;
    case DL_OPT_USE_OWN_RESOLVER:
      // Connects read the flag without cfg_lock, atomically: store it so.
      __atomic_store_n(&g_dl_cfg.use_own_resolver, number != 0 ? 1u : 0u, __ATOMIC_RELAXED);
      return 0;
    default:
      return -1;
  }
}

int store_ring_entry(const void *value) {
  const auto *entry = static_cast<const uint8_t *>(value);
  uint8_t slot = entry[0];
  if (slot >= DL_RING_MAP_ENTRIES) return -1;
  quarry::CfgLock lock;
  memcpy(g_dl_cfg.ring_map[slot], entry, DL_RING_ENTRY_SIZE);
  return 0;
}

bool is_number_option(int id) {
  switch (id) {
    case DL_OPT_SSL_METHOD:
    case DL_OPT_SSL_VERIFY:
    case DL_OPT_MAX_REDIRECTS:
    case DL_OPT_MAX_FILE_SIZE:
    case DL_OPT_TIMEOUT:
    case DL_OPT_IPV6_ENABLE:
    case DL_OPT_SSL_CHECK_HOST:
    case DL_OPT_AUTH_RETRY:
    case DL_OPT_DATA_TRACE:
    case DL_OPT_USE_OWN_RESOLVER:
      return true;
    default:
      return false;
  }
}

// Copies like strncpy(buf, field, len) without reading past a field that a
// full-length text left unterminated.
template <size_t N>
void copy_out(char *buf, size_t len, const char (&field)[N]) {
  size_t n = strnlen(field, N < len ? N : len);
  memcpy(buf, field, n);
  memset(buf + n, 0, len - n);
}

}  // namespace

extern "C" {

DL_EXPORT int dl_set_option(int id, const void *value) {
  if (value == nullptr) return -1;
  if (g_dl_cfg.initialised != 1) dl_config_init();

  if (id == DL_OPT_RING_ENTRY) return store_ring_entry(value);
  if (id == DL_OPT_RESOLV_CONF_PATH) {
    return store_path(g_dl_cfg.resolv_conf_path, value, "resolve path len too long\n");
  }
  if (id == DL_OPT_HOSTS_PATH) {
    return store_path(g_dl_cfg.hosts_path, value, "hosts path len too long\n");
  }
  if (is_number_option(id)) return store_number_option(id, number_of(value));
  return store_text_option(id, value);
}

DL_EXPORT int dl_get_option(int id, char *buf, size_t len) {
  if (buf == nullptr || g_dl_cfg.initialised != 1) return -1;
  quarry::CfgLock lock;
  switch (id) {
    case DL_OPT_TRUST_CA_DIR:
      copy_out(buf, len, g_dl_cfg.trust_ca_dir);
      return 0;
    case DL_OPT_TMP_DIR:
      copy_out(buf, len, g_dl_cfg.tmp_dir);
      return 0;
    case DL_OPT_AUX_ID:
      copy_out(buf, len, g_dl_cfg.aux_id);
      return 0;
    default:
      return -1;
  }
}

}  // extern "C"

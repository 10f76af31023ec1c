#include "tools/cli_options.h"

#include <errno.h>
#include <stdlib.h>

#include "quarry.h"

namespace quarry_cli {

namespace {

enum class Kind { kText, kNumber };

struct OptionName {
  const char *name;
  int id;
  Kind kind;
};

// Names follow the DL_OPT_* constants; the settings record's field names
// are accepted too where they differ.
constexpr OptionName kOptions[] = {
    {"user_agent", DL_OPT_USER_AGENT, Kind::kText},
    {"trust_ca_dir", DL_OPT_TRUST_CA_DIR, Kind::kText},
    {"server_cert_path", DL_OPT_SERVER_CERT_PATH, Kind::kText},
    {"ssl_method", DL_OPT_SSL_METHOD, Kind::kNumber},
    {"ssl_verify", DL_OPT_SSL_VERIFY, Kind::kNumber},
    {"ssl_verify_peer", DL_OPT_SSL_VERIFY, Kind::kNumber},
    {"max_redirects", DL_OPT_MAX_REDIRECTS, Kind::kNumber},
    {"max_file_size", DL_OPT_MAX_FILE_SIZE, Kind::kNumber},
    {"timeout", DL_OPT_TIMEOUT, Kind::kNumber},
    {"timeout_s", DL_OPT_TIMEOUT, Kind::kNumber},
    {"ipv6_enable", DL_OPT_IPV6_ENABLE, Kind::kNumber},
    {"ssl_check_host", DL_OPT_SSL_CHECK_HOST, Kind::kNumber},
    {"ssl_ca_path", DL_OPT_SSL_CA_PATH, Kind::kText},
    {"ssl_cert_path", DL_OPT_SSL_CERT_PATH, Kind::kText},
    {"tmp_dir", DL_OPT_TMP_DIR, Kind::kText},
    {"aux_id", DL_OPT_AUX_ID, Kind::kText},
    {"auth_retry", DL_OPT_AUTH_RETRY, Kind::kNumber},
    {"auth_retry_limit", DL_OPT_AUTH_RETRY, Kind::kNumber},
    {"key_password", DL_OPT_KEY_PASSWORD, Kind::kText},
    {"cert_gen_param", DL_OPT_CERT_GEN_PARAM, Kind::kText},
    {"ssl_cipher_list", DL_OPT_SSL_CIPHER_LIST, Kind::kText},
    {"data_trace", DL_OPT_DATA_TRACE, Kind::kNumber},
    {"config_path_prefix", DL_OPT_CONFIG_PATH_PREFIX, Kind::kText},
    {"resolv_conf_path", DL_OPT_RESOLV_CONF_PATH, Kind::kText},
    {"hosts_path", DL_OPT_HOSTS_PATH, Kind::kText},
    {"use_own_resolver", DL_OPT_USE_OWN_RESOLVER, Kind::kNumber},
};

}  // namespace

bool apply_setting(const std::string &setting, std::string *problem) {
  size_t eq = setting.find('=');
  if (eq == std::string::npos) {
    *problem = "expected NAME=VALUE";
    return false;
  }
  std::string name = setting.substr(0, eq);
  std::string value = setting.substr(eq + 1);
  for (const OptionName &option : kOptions) {
    if (name != option.name) continue;
    int rc;
    if (option.kind == Kind::kText) {
      rc = dl_set_option(option.id, value.c_str());
    } else {
      char *end = nullptr;
      errno = 0;
      unsigned long number = strtoul(value.c_str(), &end, 0);
      if (value.empty() || *end != '\0' || errno != 0 || number > 0xFFFFFFFFul) {
        *problem = "not a number";
        return false;
      }
      uint32_t narrow = static_cast<uint32_t>(number);
      rc = dl_set_option(option.id, &narrow);
    }
    if (rc != 0) *problem = "refused by the library";
    return rc == 0;
  }
  *problem = "unknown setting";
  return false;
}

std::string option_names() {
  std::string names;
  for (const OptionName &option : kOptions) {
    if (!names.empty()) names += ' ';
    names += option.name;
  }
  return names;
}

}  // namespace quarry_cli

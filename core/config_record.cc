// The process-wide settings record and its small read-only getters.
#include "core/core.h"

namespace quarry {

TransferSettings transfer_settings() {
  CfgLock lock;
  return TransferSettings{g_dl_cfg.timeout_s, g_dl_cfg.ipv6_enable,
                          g_dl_cfg.use_own_resolver != 0, g_dl_cfg.max_file_size};
}

}  // namespace quarry

extern "C" {

DL_EXPORT dl_config g_dl_cfg;

DL_EXPORT const char *dl_get_version(void) { return "5.4.0.32"; }

DL_EXPORT unsigned dl_config_data_trace_enable(void) {
  return quarry::cfg_read(&dl_config::data_trace);
}

DL_EXPORT char *dl_get_config_path_prefix(void) {
  // Callers keep this address; it must be the field itself.
  return g_dl_cfg.config_path_prefix;
}

DL_EXPORT int dl_config_use_cfgserver(void) {
  return static_cast<int>(quarry::cfg_read(&dl_config::use_cfgserver));
}

}  // extern "C"

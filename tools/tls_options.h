// The quarry tool's HTTPS settings. The library's defaults suit the phone,
// whose provisioning sets them; a command line on a desktop must reach
// today's servers safely without options, so the tool starts from TLS
// with version negotiation and full verification against the system's
// trust store, and --insecure turns the checks off.
#ifndef QUARRY_TOOLS_TLS_OPTIONS_H
#define QUARRY_TOOLS_TLS_OPTIONS_H

#include <string>

namespace quarry_cli {

struct TlsOptions {
  bool insecure = false;
  std::string cert;  // client certificate and key, one PEM file
};

// Takes --insecure or --cert FILE at argv[*i] (advancing *i past a value).
// Returns false when argv[*i] is neither; sets *bad when --cert lacks its
// file.
bool parse_tls_option(int argc, char **argv, int *i, TlsOptions *out, bool *bad);

// Sets the tool's defaults (ssl_method 3, ssl_ca_path /etc/ssl/certs,
// ssl_verify 1, ssl_check_host 1), then what the options ask. Call after
// dl_config_init and before any --set, which may override all of it.
void apply_tls_options(const TlsOptions &options);

// The lines --help shows for these options and defaults.
const char *tls_help();

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_TLS_OPTIONS_H

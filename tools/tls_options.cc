#include "tools/tls_options.h"

#include <string.h>

#include "quarry.h"

namespace quarry_cli {

namespace {

constexpr uint32_t kNegotiated = 3;
constexpr char kSystemTrust[] = "/etc/ssl/certs";

void set_number(int option, uint32_t value) { dl_set_option(option, &value); }

}  // namespace

bool parse_tls_option(int argc, char **argv, int *i, TlsOptions *out, bool *bad) {
  const char *arg = argv[*i];
  if (strcmp(arg, "--insecure") == 0 || strcmp(arg, "-k") == 0) {
    out->insecure = true;
    return true;
  }
  if (strcmp(arg, "--cert") == 0) {
    if (*i + 1 >= argc) {
      *bad = true;
      return true;
    }
    out->cert = argv[++*i];
    return true;
  }
  return false;
}

void apply_tls_options(const TlsOptions &options) {
  set_number(DL_OPT_SSL_METHOD, kNegotiated);
  dl_set_option(DL_OPT_SSL_CA_PATH, kSystemTrust);
  set_number(DL_OPT_SSL_VERIFY, options.insecure ? 0 : 1);
  set_number(DL_OPT_SSL_CHECK_HOST, options.insecure ? 0 : 1);
  if (!options.cert.empty()) dl_set_option(DL_OPT_SSL_CERT_PATH, options.cert.c_str());
}

const char *tls_help() {
  return "https: the tool negotiates the TLS version (ssl_method=3) and verifies the server\n"
         "       against /etc/ssl/certs (ssl_ca_path, a hashed directory) and its host name\n"
         "       (ssl_verify=1 ssl_check_host=1); --set changes any of these.\n"
         "       --insecure (-k)  no certificate or host-name check\n"
         "       --cert FILE      client certificate and its key in one PEM file\n"
         "                        (--set key_password=P for an encrypted key)\n";
}

}  // namespace quarry_cli

// quarry cert: install, delete, list, describe and verify trusted CA
// certificates; install, describe and delete the device certificate; make
// a signing request or a client certificate.
#include "tools/cert_cmd.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "quarry.h"
#include "tools/arg_walk.h"

namespace quarry_cli {

namespace {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;
constexpr int kDefaultBits = 2048;

int cert_usage() {
  fprintf(stderr,
          "usage: quarry cert install FILE            install a trusted CA certificate\n"
          "       quarry cert delete FILE             delete it and its store names\n"
          "       quarry cert list                    the trusted CA certificates\n"
          "       quarry cert info FILE [--client]    details of a certificate file\n"
          "       quarry cert verify FILE [--ca-dir DIR] [--ca-file FILE] [--advance]\n"
          "       quarry cert device install FILE [--separate]\n"
          "       quarry cert device info | quarry cert device delete\n"
          "       quarry cert csr CSR_OUT KEY SUBJECT [--bits N]\n"
          "       quarry cert client-cert CA_CERT CA_KEY KEY CERT_OUT SUBJECT [--bits N]\n"
          "options: --trust DIR (trust_ca_dir)  --device FILE (server_cert_path)\n"
          "         --set NAME=VALUE  -v\n"
          "SUBJECT is \"/CN=name/O=organisation/...\".\n");
  return kExitUsage;
}

struct CertArgs {
  std::vector<std::string> words;
  std::string trust;
  std::string device;
  std::string ca_dir;
  std::string ca_file;
  std::vector<std::string> settings;
  int bits = kDefaultBits;
  bool client = false;
  bool advance = false;
  bool separate = false;
  bool verbose = false;
};

bool parse(int argc, char **argv, CertArgs *args) {
  ArgWalk walk(argc, argv, 2, ArgWalk::Missing::kQuiet);
  while (walk.next()) {
    const std::string &arg = walk.arg();
    if (arg == "--trust") {
      if (!walk.value(&args->trust)) return false;
    } else if (arg == "--device") {
      if (!walk.value(&args->device)) return false;
    } else if (arg == "--ca-dir") {
      if (!walk.value(&args->ca_dir)) return false;
    } else if (arg == "--ca-file") {
      if (!walk.value(&args->ca_file)) return false;
    } else if (arg == "--bits") {
      if (!walk.number(&args->bits)) return false;
    } else if (arg == "--set") {
      std::string setting;
      if (!walk.value(&setting)) return false;
      args->settings.push_back(setting);
    } else if (arg == "--client") {
      args->client = true;
    } else if (arg == "--advance") {
      args->advance = true;
    } else if (arg == "--separate") {
      args->separate = true;
    } else if (walk.verbose()) {
      args->verbose = true;
    } else if (arg != "-" && walk.unknown()) {
      // A lone "-" is a word here.
      return false;
    } else {
      args->words.push_back(arg);
    }
  }
  return !args->words.empty();
}

// Library start-up and the settings of the command line. False (after a
// message) when a setting is refused.
bool set_up(const CertArgs &args) {
  start_library(args.verbose);
  if (!apply_settings(args.settings)) return false;
  if (!args.trust.empty()) {
    // The store appends names to the directory directly.
    std::string dir = args.trust.back() == '/' ? args.trust : args.trust + "/";
    dl_set_option(DL_OPT_TRUST_CA_DIR, dir.c_str());
  }
  if (!args.device.empty()) dl_set_option(DL_OPT_SERVER_CERT_PATH, args.device.c_str());
  return true;
}

int refused(const char *what, int code, const std::map<int, const char *> &meanings) {
  auto it = meanings.find(code);
  fprintf(stderr, "quarry: %s: %s (%d)\n", what, it != meanings.end() ? it->second : "failed",
          code);
  return kExitRefused;
}

std::string trust_dir() {
  char dir[512] = "";
  dl_get_option(DL_OPT_TRUST_CA_DIR, dir, sizeof dir - 1);
  return dir;
}

int install(const std::string &path) {
  if (trust_dir().empty()) {
    fprintf(stderr, "quarry: no trust directory: give --trust DIR\n");
    return kExitUsage;
  }
  int rc = dl_install_ca(path.c_str());
  if (rc != 0) {
    return refused("install", rc,
                   {{-1, "not a readable certificate, or the trust directory cannot be made"},
                    {-2, "a certificate with the same subject is installed already"},
                    {-3, "a factory certificate with the same subject exists"}});
  }
  dl_ca_info info;
  if (dl_get_ca_info(path.c_str(), &info) == 0) {
    printf("installed %s as %s%08x.0\n", path.c_str(), trust_dir().c_str(), info.hash);
  }
  return kExitOk;
}

int list() {
  dl_ca_list list;
  int rc = dl_get_trust_ca_info(&list);
  if (rc != 0) return refused("list", rc, {{-2, "the trust directory cannot be opened"}});
  printf("%-28s %-24s %-26s %-8s %s\n", "COMMON NAME", "ORGANISATION", "EXPIRES", "HASH", "PATH");
  for (uint32_t i = 0; i < list.count; ++i) {
    const dl_ca_info &c = list.info[i];
    printf("%-28.64s %-24.64s %-26.64s %08x %.64s\n", c.cn, c.org, c.expiry, c.hash, c.path);
  }
  printf("%u certificate%s\n", list.count, list.count == 1 ? "" : "s");
  return kExitOk;
}

int info(const std::string &path, bool client) {
  dl_ca_info_ex x;
  dl_cert_result result;
  if (dl_get_ca_info_ex(path.c_str(), &x, client ? 1 : 0, &result) != 0) {
    return refused("info", result.status,
                   {{1, "not a readable certificate"}, {2, "OpenSSL could not start"}});
  }
  printf("version:              %u\n", x.version);
  printf("serial:               %.64s\n", x.serial);
  printf("signature algorithm:  %.64s\n", x.sig_alg);
  printf("public key:           %.64s, %d bits\n", x.pubkey_alg, x.pubkey_bits);
  if (client) printf("private key:          %.64s, %d bits\n", x.privkey_alg, x.privkey_bits);
  printf("issuer:               %.64s\n", x.issuer);
  printf("subject:              %.64s\n", x.subject);
  printf("subject hash:         %08x\n", x.hash);
  printf("valid from:           %.64s\n", x.valid_from);
  printf("valid to:             %.64s\n", x.valid_to);
  printf("extensions:           %d\n", x.ext_count);
  return kExitOk;
}

int verify(const CertArgs &args, const std::string &path) {
  static const std::map<int, const char *> kStatus = {
      {1, "bad argument"},
      {2, "the CA file or directory cannot be loaded"},
      {3, "bad signature"},
      {4, "not yet valid"},
      {5, "expired"},
      {6, "issuer not trusted or not found"},
      {7, "protocol selector not usable for the advance check"},
      {8, "the certificate cannot be used"},
      {9, "the private key cannot be loaded"},
      {10, "the private key does not match"},
      {11, "does not verify"}};
  dl_cert_result result;
  const char *ca_dir = args.ca_dir.empty() ? nullptr : args.ca_dir.c_str();
  const char *ca_file = args.ca_file.empty() ? nullptr : args.ca_file.c_str();
  std::string store;
  if (ca_dir == nullptr && ca_file == nullptr && !trust_dir().empty()) {
    store = trust_dir() + "ca/";
    ca_dir = store.c_str();
  }
  if (dl_cert_verify(path.c_str(), ca_dir, ca_file, args.advance ? 1 : 0, &result) == 0) {
    printf("%s: verified\n", path.c_str());
    return kExitOk;
  }
  auto it = kStatus.find(result.status);
  fprintf(stderr, "quarry: verify: %s (status %d)%s%.256s\n",
          it != kStatus.end() ? it->second : "failed", result.status, result.msg[0] ? ": " : "",
          result.msg);
  return kExitRefused;
}

int device(const CertArgs &args) {
  const std::string &what = args.words.size() > 1 ? args.words[1] : "";
  if (what == "install" && args.words.size() == 3) {
    const char *path = args.words[2].c_str();
    if (args.separate) {
      int rc = dl_install_ser_ca_separate(path);
      return rc == 0 ? kExitOk : refused("device install", rc, {});
    }
    int rc = dl_install_ser_ca(path);
    if (rc == 0) return kExitOk;
    return refused("device install", rc,
                   {{-2, "the private key cannot be read"},
                    {-3, "the certificate cannot be read"},
                    {-4, "the private key does not match the certificate"},
                    {-5, "the file cannot be opened by OpenSSL"},
                    {-6, "the device directory cannot be made"},
                    {-7, "bad device path or method, or the same file is installed already"},
                    {-8, "this is the factory device certificate"}});
  }
  if (what == "info" && args.words.size() == 2) {
    dl_ca_info c;
    int rc = dl_get_ser_ca_info(&c);
    if (rc == 0 || rc == -3) {
      printf("common name:  %.64s\norganisation: %.64s\nexpires:      %.64s\nhash:         %08x\n",
             c.cn, c.org, c.expiry, c.hash);
    }
    if (rc == 0) return kExitOk;
    return refused("device info", rc,
                   {{-2, "no readable device certificate"},
                    {-3, "the private key is missing or does not match"}});
  }
  if (what == "delete" && args.words.size() == 2) return dl_del_ser_ca() == 0 ? kExitOk : kExitRefused;
  return cert_usage();
}

int dispatch(const CertArgs &args) {
  const std::vector<std::string> &w = args.words;
  if (w[0] == "install" && w.size() == 2) return install(w[1]);
  if (w[0] == "delete" && w.size() == 2) {
    dl_del_ca(w[1].c_str());
    return kExitOk;
  }
  if (w[0] == "list" && w.size() == 1) return list();
  if (w[0] == "info" && w.size() == 2) return info(w[1], args.client);
  if (w[0] == "verify" && w.size() == 2) return verify(args, w[1]);
  if (w[0] == "device") return device(args);
  if (w[0] == "csr" && w.size() == 4) {
    if (dl_cert_build_csr_req_file(w[1].c_str(), w[2].c_str(), w[3].c_str(), args.bits) != 0) {
      return refused("csr", -1, {});
    }
    printf("wrote request %s and key %s\n", w[1].c_str(), w[2].c_str());
    return kExitOk;
  }
  if (w[0] == "client-cert" && w.size() == 6) {
    if (dl_generate_client_cert(w[1].c_str(), w[2].c_str(), w[3].c_str(), w[4].c_str(),
                                w[5].c_str(), args.bits) != 0) {
      return refused("client-cert", -1, {});
    }
    printf("wrote certificate and key %s\n", w[4].c_str());
    return kExitOk;
  }
  return cert_usage();
}

}  // namespace

int run_cert(int argc, char **argv) {
  CertArgs args;
  if (!parse(argc, argv, &args)) return cert_usage();
  if (!set_up(args)) {
    dl_exit();
    return kExitUsage;
  }
  int status = dispatch(args);
  fflush(stdout);
  dl_exit();
  return status;
}

}  // namespace quarry_cli

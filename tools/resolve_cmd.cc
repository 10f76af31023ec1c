// quarry resolve NAME [a|aaaa|ptr] [--resolv FILE] [--hosts FILE]
//                [--timeout S] [--passes N] [-v]
// Asks the library's own resolver (hosts file first, then the name servers
// of the resolver file) and prints one address a line, or the PTR name.
#include "tools/resolve_cmd.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "quarry.h"

namespace quarry_cli {

namespace {

constexpr int kExitUsage = 2;
constexpr int kTypeA = 1;
constexpr int kTypeAAAA = 28;
constexpr int kTypePtr = 12;
constexpr int kClassIn = 1;

int usage() {
  fprintf(stderr,
          "usage: quarry resolve NAME [a|aaaa|ptr] [--resolv FILE] [--hosts FILE]"
          " [--timeout S] [--passes N] [-v]\n");
  return kExitUsage;
}

struct ResolveArgs {
  std::string name;
  int type = kTypeA;
  std::string resolv;
  std::string hosts;
  int timeout_s = 0;
  int passes = 0;
  bool verbose = false;
};

bool parse_type(const std::string &text, int *type) {
  if (text == "a") {
    *type = kTypeA;
  } else if (text == "aaaa") {
    *type = kTypeAAAA;
  } else if (text == "ptr") {
    *type = kTypePtr;
  } else {
    return false;
  }
  return true;
}

bool parse(int argc, char **argv, ResolveArgs *args) {
  int positional = 0;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    bool has_value = i + 1 < argc;
    if (arg == "--resolv" && has_value) {
      args->resolv = argv[++i];
    } else if (arg == "--hosts" && has_value) {
      args->hosts = argv[++i];
    } else if (arg == "--timeout" && has_value) {
      args->timeout_s = atoi(argv[++i]);
      if (args->timeout_s < 1) return false;
    } else if (arg == "--passes" && has_value) {
      args->passes = atoi(argv[++i]);
      if (args->passes < 1) return false;
    } else if (arg == "-v" || arg == "--verbose") {
      args->verbose = true;
    } else if (!arg.empty() && arg[0] == '-') {
      fprintf(stderr, "quarry: unknown option %s\n", arg.c_str());
      return false;
    } else if (positional == 0) {
      args->name = arg;
      ++positional;
    } else if (positional == 1 && parse_type(arg, &args->type)) {
      ++positional;
    } else {
      return false;
    }
  }
  return positional > 0;
}

void print_answer(const dns_answer &answer, int type) {
  if (type == kTypePtr) {
    printf("%s\n", reinterpret_cast<const char *>(&answer.count));
    return;
  }
  const int family = type == kTypeA ? AF_INET : AF_INET6;
  const size_t len = type == kTypeA ? 4 : 16;
  for (uint32_t i = 0; i < answer.count && (i + 1) * len <= sizeof(answer.addr); ++i) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, answer.addr + i * len, text, sizeof(text));
    printf("%s\n", text);
  }
}

}  // namespace

int run_resolve(int argc, char **argv) {
  ResolveArgs args;
  if (!parse(argc, argv, &args)) return usage();
  dl_config_init();
  if (args.verbose) {
    dl_log_new_init(DL_LOG_TYPE_FILE, 0, "/dev/stderr");
    dl_set_log_level(0);
  } else {
    dl_log_init(0);
  }
  if (!args.resolv.empty()) dl_set_option(DL_OPT_RESOLV_CONF_PATH, args.resolv.c_str());
  if (!args.hosts.empty()) dl_set_option(DL_OPT_HOSTS_PATH, args.hosts.c_str());
  // What a connect does first: files named above are read now.
  dl_dns_reload_resolv_conf();
  dl_dns_reload_hosts_conf();
  if (args.timeout_s > 0) dl_dns_set_timeout(args.timeout_s);
  if (args.passes > 0) dl_dns_set_nretry(args.passes);

  dns_answer answer;
  int rc = dl_dns_resolv(args.name.c_str(), args.type, kClassIn, &answer);
  if (rc == 0) print_answer(answer, args.type);
  dl_exit();
  if (rc != 0) {
    fprintf(stderr, "quarry: %s: no answer (%d)\n", args.name.c_str(), rc);
    return 1;
  }
  return 0;
}

}  // namespace quarry_cli

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
#include "tools/arg_walk.h"

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
  // An option without its value is taken for an unknown one.
  ArgWalk walk(argc, argv, 0, ArgWalk::Missing::kQuiet);
  while (walk.next()) {
    const std::string &arg = walk.arg();
    if (arg == "--resolv" && walk.value(&args->resolv)) continue;
    if (arg == "--hosts" && walk.value(&args->hosts)) continue;
    if (arg == "--timeout" && walk.number(&args->timeout_s)) {
      if (args->timeout_s < 1) return false;
    } else if (arg == "--passes" && walk.number(&args->passes)) {
      if (args->passes < 1) return false;
    } else if (walk.verbose()) {
      args->verbose = true;
    } else if (walk.unknown()) {
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
  start_library(args.verbose);
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

// quarry: fetch and send files by URL through libquarry.
//
//   quarry get URL [-o FILE]
//   quarry put FILE URL [--header 'Name: value'] [--put] [--name REMOTE]
//              [--append | --store] [--limit-mode 1|2]   (ftp)
//   quarry version | quarry error CODE
//   quarry ring ... | quarry resolve ... | quarry cert ...
//   quarry --help | quarry --version
// Exit status: 0 done, 1 the transfer failed, 2 a usage error.
// Options for get and put: --user U, --password P, --proxy URL,
// --set NAME=VALUE (any library option by name), -v (library log on
// standard error at debug level), --insecure and --cert FILE for https.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "quarry.h"
#include "tools/arg_walk.h"
#include "tools/cert_cmd.h"
#include "tools/cli_options.h"
#include "tools/http_status.h"
#include "tools/progress.h"
#include "tools/tls_options.h"
#include "tools/ring_cmd.h"
#include "tools/resolve_cmd.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr size_t kRedirectSize = 512;
constexpr int kReadChunk = 16384;

int usage(FILE *out = stderr) {
  fprintf(out,
          "usage: quarry get URL [-o FILE] [options]\n"
          "       quarry put FILE URL [--header 'Name: value'] [--put] [--name REMOTE] [options]\n"
          "       quarry put FILE ftp://... [--append | --store] [--limit-mode 1|2] [options]\n"
          "       quarry ring URL [NAME] [-v]\n"
          "       quarry resolve NAME [a|aaaa|ptr] [--resolv FILE] [--hosts FILE]\n"
          "       quarry cert ...  (the certificate store; \"quarry cert\" for its usage)\n"
          "       quarry version   (also --version)\n"
          "       quarry error CODE\n"
          "       quarry --help\n"
          "options: --user U  --password P  --proxy URL  --set NAME=VALUE  -v\n"
          "         --insecure  --cert FILE\n"
          "settings for --set: %s\n",
          quarry_cli::option_names().c_str());
  fputs(quarry_cli::tls_help(), out);
  fputs("exit status: 0 done, 1 the transfer failed, 2 usage error\n"
        "see also: man quarry\n",
        out);
  return out == stderr ? kExitUsage : 0;
}

struct Args {
  std::string command;
  std::vector<std::string> positional;
  std::string output;
  std::string user;
  std::string password;
  std::string proxy;
  std::string remote_name;
  std::string headers;  // extra header lines, each ending in CRLF
  std::vector<std::string> settings;
  bool put = false;
  bool verbose = false;
  quarry_cli::TlsOptions tls;
  int ftp_post_mode = 0;   // 1 append, 2 store; ftp URLs store by default
  int ftp_limit_mode = 0;  // over max_file_size: 1 store instead, 2 stop
};

bool parse_args(int argc, char **argv, Args *args) {
  if (argc < 2) return false;
  args->command = argv[1];
  quarry_cli::ArgWalk walk(argc, argv, 2, quarry_cli::ArgWalk::Missing::kSay);
  while (walk.next()) {
    const std::string &arg = walk.arg();
    bool bad = false;
    if (quarry_cli::parse_tls_option(argc, argv, walk.index(), &args->tls, &bad)) {
      if (bad) return false;
    } else if (arg == "-o" || arg == "--output") {
      if (!walk.value(&args->output)) return false;
    } else if (arg == "--user") {
      if (!walk.value(&args->user)) return false;
    } else if (arg == "--password") {
      if (!walk.value(&args->password)) return false;
    } else if (arg == "--proxy") {
      if (!walk.value(&args->proxy)) return false;
    } else if (arg == "--name") {
      if (!walk.value(&args->remote_name)) return false;
    } else if (arg == "--header") {
      std::string header;
      if (!walk.value(&header)) return false;
      args->headers += header + "\r\n";
    } else if (arg == "--set") {
      std::string setting;
      if (!walk.value(&setting)) return false;
      args->settings.push_back(setting);
    } else if (arg == "--put") {
      args->put = true;
    } else if (arg == "--append" || arg == "--store") {
      args->ftp_post_mode = arg == "--append" ? 1 : 2;
    } else if (arg == "--limit-mode") {
      if (!walk.number(&args->ftp_limit_mode)) return false;
    } else if (walk.verbose()) {
      args->verbose = true;
    } else if (walk.unknown()) {
      return false;
    } else {
      args->positional.push_back(arg);
    }
  }
  return true;
}

bool is_http_url(const std::string &url) {
  return url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0;
}

// A failed HTTP status reads as the server's answer ("HTTP 404 Not Found"),
// since the library's text for such codes is its generic one.
int report_failure(const dl_error &err, const std::string &url) {
  int code = err.code != 0 ? err.code : DL_ERR_FAIL;
  const char *phrase = is_http_url(url) ? quarry_cli::http_reason_phrase(code) : nullptr;
  if (phrase != nullptr) {
    fprintf(stderr, "quarry: failed: HTTP %d %s\n", code, phrase);
    return kExitFailed;
  }
  char text[256];
  dl_get_error_string(code, text, sizeof(text));
  fprintf(stderr, "quarry: failed: %d %s\n", code, err.msg[0] != '\0' ? err.msg : text);
  return kExitFailed;
}

void set_up_library(const Args &args) {
  quarry_cli::start_library(args.verbose);
  quarry_cli::apply_tls_options(args.tls);
}

dl_request make_request(const Args &args, const std::string &url) {
  dl_request req;
  req.url = const_cast<char *>(url.c_str());
  req.user = args.user.empty() ? nullptr : const_cast<char *>(args.user.c_str());
  req.password = args.password.empty() ? nullptr : const_cast<char *>(args.password.c_str());
  req.proxy = args.proxy.empty() ? nullptr : const_cast<char *>(args.proxy.c_str());
  return req;
}

// The body's length when the server announced one, for the progress bar.
long long announced_length(dl_handle *h) {
  if (h->scheme != DL_SCHEME_HTTP && h->scheme != DL_SCHEME_HTTPS) return -1;
  const char *line =
      dl_http_find_header_by_name(static_cast<dl_http_conn *>(h->proto), "content-length");
  if (line == nullptr) return -1;
  const char *colon = strchr(line, ':');
  return colon != nullptr ? atoll(colon + 1) : -1;
}

// Streams the download to standard output through dl_open/dl_read.
int stream_to_stdout(const Args &args, const std::string &url) {
  dl_request req = make_request(args, url);
  char redirect[kRedirectSize] = "";
  dl_error err = {};
  dl_handle *h = nullptr;
  if (dl_open(&req, &h, redirect, &err) != 0) return report_failure(err, url);
  quarry_cli::Progress progress(announced_length(h));
  std::vector<char> buf(kReadChunk);
  int result = 0;
  for (;;) {
    int n = dl_read(h, buf.data(), kReadChunk, &err);
    if (n == 0) break;
    if (n < 0) {
      result = report_failure(err, url);
      break;
    }
    if (fwrite(buf.data(), 1, static_cast<size_t>(n), stdout) != static_cast<size_t>(n)) {
      perror("quarry: write");
      result = kExitFailed;
      break;
    }
    progress.advance(n);
  }
  progress.finish();
  dl_close(h);
  fflush(stdout);
  return result;
}

int run_get(const Args &args) {
  if (args.positional.size() != 1) return usage();
  const std::string &url = args.positional[0];
  if (args.output.empty()) return stream_to_stdout(args, url);
  dl_request req = make_request(args, url);
  char redirect[kRedirectSize] = "";
  dl_error err = {};
  if (dl_download(&req, args.output.c_str(), redirect, &err) != 0) return report_failure(err, url);
  if (redirect[0] != '\0') fprintf(stderr, "quarry: redirected to %s\n", redirect);
  fprintf(stderr, "quarry: saved %s\n", args.output.c_str());
  return 0;
}

int run_put(const Args &args) {
  if (args.positional.size() != 2) return usage();
  const std::string &file = args.positional[0];
  const std::string &url = args.positional[1];
  dl_request req = make_request(args, url);
  char redirect[kRedirectSize] = "";
  dl_error err = {};
  int mode = args.put ? DL_HTTP_PUT : DL_HTTP_POST;
  if (url.compare(0, 6, "ftp://") == 0) mode = args.ftp_post_mode != 0 ? args.ftp_post_mode : 2;
  const char *remote = args.remote_name.empty() ? nullptr : args.remote_name.c_str();
  if (dl_upload(&req, file.c_str(), remote, redirect, &err, args.headers.c_str(), mode,
                args.ftp_limit_mode) != 0) {
    return report_failure(err, url);
  }
  fprintf(stderr, "quarry: sent %s\n", file.c_str());
  return 0;
}

int print_version() {
  printf("libquarry %s\n", dl_get_version());
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    return usage(stdout);
  }
  if (argc == 2 && strcmp(argv[1], "--version") == 0) return print_version();
  if (argc >= 2 && argv[1][0] == '-') {
    fprintf(stderr, "quarry: unknown option %s\n", argv[1]);
    return usage();
  }
  if (argc >= 2 && strcmp(argv[1], "ring") == 0) return quarry_cli::run_ring(argc - 2, argv + 2);
  if (argc >= 2 && strcmp(argv[1], "resolve") == 0) return quarry_cli::run_resolve(argc - 2, argv + 2);
  if (argc >= 2 && strcmp(argv[1], "cert") == 0) return quarry_cli::run_cert(argc, argv);
  Args args;
  if (!parse_args(argc, argv, &args)) return usage();
  if (args.command == "version") return print_version();
  if (args.command == "error") {
    if (args.positional.size() != 1) return usage();
    char text[256];
    dl_get_error_string(atoi(args.positional[0].c_str()), text, sizeof(text));
    printf("%s\n", text);
    return 0;
  }
  if (args.command != "get" && args.command != "put") {
    fprintf(stderr, "quarry: unknown command %s\n", args.command.c_str());
    return usage();
  }

  set_up_library(args);
  if (!quarry_cli::apply_settings(args.settings)) {
    dl_exit();
    return kExitUsage;
  }
  int status = args.command == "get" ? run_get(args) : run_put(args);
  dl_exit();
  return status;
}

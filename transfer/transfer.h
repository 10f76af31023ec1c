// transfer/: the generic entry that moves a file by URL and picks the
// protocol client by the URL's scheme.
#ifndef QUARRY_TRANSFER_TRANSFER_H
#define QUARRY_TRANSFER_TRANSFER_H

#include <stddef.h>
#include <stdlib.h>

#include "quarry.h"
#include "quarry_internal.h"

namespace quarry {

// The URL parts of one call; their strings are freed on every path.
class SplitUrl {
 public:
  SplitUrl() : parts_() {}
  ~SplitUrl() {
    free(parts_.host);
    free(parts_.path);
    free(parts_.user);
    free(parts_.password);
  }
  SplitUrl(const SplitUrl &) = delete;
  SplitUrl &operator=(const SplitUrl &) = delete;

  bool split(const char *url) { return url_split(url, &parts_) == 0; }
  const dl_url_parts &parts() const { return parts_; }
  bool is_http() const {
    return parts_.scheme == DL_SCHEME_HTTP || parts_.scheme == DL_SCHEME_HTTPS;
  }

 private:
  dl_url_parts parts_;
};

// The HTTP client's parameters rebuilt from a request and its URL parts;
// the rebuilt URL is freed with the object.
class HttpParam {
 public:
  HttpParam() : param_() {}
  ~HttpParam() { free(param_.url); }
  HttpParam(const HttpParam &) = delete;
  HttpParam &operator=(const HttpParam &) = delete;

  // False, with the front door's out-of-memory line, when it fails.
  bool rebuild(const dl_request *req, const dl_url_parts &parts);
  dl_http_param *get() { return &param_; }

 private:
  dl_http_param param_;
};

// The FTP login: the URL's user and password where it has them, else the
// request's, each on its own.
struct FtpLogin {
  const char *user;
  const char *password;
};
FtpLogin ftp_login(const dl_request *req, const dl_url_parts &parts);

// Logs the FTP login line; the password is always masked.
void log_ftp_login(const FtpLogin &login);

// The remote target of a TFTP or FTP upload, at most 511 characters: the
// URL path's directory (the whole path unless it names a file) followed by
// |remote_name|, or by |local_file|'s name when no remote name is given.
void upload_target(const char *url_path, const char *remote_name, const char *local_file,
                   char *target, size_t target_size);

// The line every front-door entry point logs first (module DCMN, info).
void log_entry(const char *function);

// The log line every front-door failure writes (module DCMN, error level).
void log_failure(const char *line);

}  // namespace quarry

#endif  // QUARRY_TRANSFER_TRANSFER_H

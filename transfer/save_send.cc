// Whole-file transfers: dl_download saves a URL into a local file,
// dl_upload sends a local file to a URL.
#include <string.h>

#include "core/core.h"
#include "transfer/transfer.h"

namespace {

using quarry::log_entry;
using quarry::log_failure;

constexpr size_t kTargetSize = 512;


// An upload's request type: POST or PUT as asked, POST for anything else.
int32_t upload_type(int mode) {
  return (mode == DL_HTTP_POST || mode == DL_HTTP_PUT) ? mode : DL_HTTP_POST;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_download(const dl_request *req, const char *local_path, char *redirect_out,
                          dl_error *err) {
  log_entry("dl_download");
  if (req == nullptr || req->url == nullptr || local_path == nullptr || err == nullptr) {
    log_failure("Invalid Param!\n");
    return -1;
  }
  quarry::SplitUrl url;
  if (!url.split(req->url)) {
    log_failure("URL Pasing Fail!\n");
    return -1;
  }
  const dl_url_parts &parts = url.parts();
  if (url.is_http() && redirect_out == nullptr) {
    log_failure("New Url Null!\n");
    return -1;
  }
  switch (parts.scheme) {
    case DL_SCHEME_HTTPS:
    case DL_SCHEME_HTTP: {
      quarry::HttpParam param;
      if (!param.rebuild(req, parts)) return -1;
      return dl_http_recv_to_file(param.get(), local_path, redirect_out, err);
    }
    case DL_SCHEME_TFTP:
      return dl_tftp_recv_to_file(parts.host, parts.port, parts.path, local_path, err);
    case DL_SCHEME_FTP: {
      quarry::FtpLogin login = quarry::ftp_login(req, parts);
      quarry::log_ftp_login(login);
      return dl_ftp_recv_to_file(parts.host, parts.port, login.user, login.password, parts.path,
                                 local_path, err);
    }
    default:
      log_failure("Protocol Not Suppport!\n");
      return -1;
  }
}

DL_EXPORT int dl_upload(const dl_request *req, const char *local_file, const char *remote_name,
                        char *redirect_out, dl_error *err, const char *extra_headers, int mode,
                        int option) {
  log_entry("dl_upload");
  if (err == nullptr || req == nullptr || req->url == nullptr || local_file == nullptr) {
    log_failure("Invalid Param!\n");
    return -1;
  }
  quarry::SplitUrl url;
  if (!url.split(req->url)) {
    log_failure("URL Pasing Fail!\n");
    return -1;
  }
  const dl_url_parts &parts = url.parts();
  char target[kTargetSize] = "";
  if (parts.scheme == DL_SCHEME_TFTP || parts.scheme == DL_SCHEME_FTP) {
    quarry::upload_target(parts.path, remote_name, local_file, target, sizeof(target));
  }
  switch (parts.scheme) {
    case DL_SCHEME_HTTPS:
    case DL_SCHEME_HTTP: {
      if (redirect_out == nullptr || extra_headers == nullptr) {
        log_failure("New Url Or Header Null!\n");
        return -1;
      }
      quarry::HttpParam param;
      if (!param.rebuild(req, parts)) return -1;
      param.get()->type = upload_type(mode);
      param.get()->headers = const_cast<char *>(extra_headers);
      param.get()->body = nullptr;
      // The post hands back only a mark of success here; nothing to keep.
      dl_http_conn *unused = nullptr;
      return dl_http_post_file(&unused, param.get(), local_file, redirect_out, err);
    }
    case DL_SCHEME_TFTP:
      return dl_tftp_send_file(parts.host, parts.port, target, local_file, err);
    case DL_SCHEME_FTP: {
      quarry::FtpLogin login = quarry::ftp_login(req, parts);
      quarry::log_ftp_login(login);
      return dl_ftp_send_file(parts.host, parts.port, login.user, login.password, target,
                              local_file, mode, option, err);
    }
    default:
      log_failure("Protocol Not Suppport!\n");
      return -1;
  }
}

}  // extern "C"

// Streaming a download: dl_open, dl_read, dl_close.
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "transfer/transfer.h"

namespace {

using quarry::log_entry;
using quarry::log_failure;


// Opens the protocol client of |h|'s scheme; 0 or -1.
int open_client(dl_handle *h, const dl_request *req, const dl_url_parts &parts,
                char *redirect_out, dl_error *err) {
  switch (parts.scheme) {
    case DL_SCHEME_HTTPS:
    case DL_SCHEME_HTTP: {
      if (redirect_out == nullptr) {
        log_failure("New Url NULL!\n");
        return -1;
      }
      quarry::HttpParam param;
      if (!param.rebuild(req, parts)) return -1;
      auto **conn = reinterpret_cast<dl_http_conn **>(&h->proto);
      return dl_http_open(conn, param.get(), redirect_out, err) == 0 ? 0 : -1;
    }
    case DL_SCHEME_TFTP: {
      auto **conn = reinterpret_cast<dl_tftp_conn **>(&h->proto);
      return dl_tftp_open(conn, parts.host, parts.port, parts.path, err) == 0 ? 0 : -1;
    }
    case DL_SCHEME_FTP: {
      quarry::FtpLogin login = quarry::ftp_login(req, parts);
      auto **conn = reinterpret_cast<dl_ftp_conn **>(&h->proto);
      return dl_ftp_open(conn, parts.host, parts.port, login.user, login.password, parts.path,
                         err) == 0
                 ? 0
                 : -1;
    }
    default:
      log_failure("Protocol Not Suppport!\n");
      return -1;
  }
}

}  // namespace

extern "C" {

DL_EXPORT int dl_open(const dl_request *req, dl_handle **out, char *redirect_out, dl_error *err) {
  log_entry("dl_open");
  if (req == nullptr || req->url == nullptr || out == nullptr || err == nullptr) {
    if (out != nullptr) *out = nullptr;
    log_failure("Invalid Param!\n");
    return -1;
  }
  *out = nullptr;
  memset(err, 0, sizeof(*err));
  auto *h = static_cast<dl_handle *>(calloc(1, sizeof(dl_handle)));
  if (h == nullptr) {
    log_failure("Memory exhault!\n");
    return -1;
  }
  quarry::SplitUrl url;
  if (!url.split(req->url)) {
    log_failure("URL Parsing Fail!\n");
    free(h);
    return -1;
  }
  h->scheme = url.parts().scheme;
  if (open_client(h, req, url.parts(), redirect_out, err) != 0) {
    free(h);
    return -1;
  }
  *out = h;
  return 0;
}

DL_EXPORT int dl_read(dl_handle *h, void *buf, int len, dl_error *err) {
  log_entry("dl_read");
  if (err == nullptr || h == nullptr || buf == nullptr || len <= 0) {
    log_failure("Invalid Param!\n");
    return -1;
  }
  switch (h->scheme) {
    case DL_SCHEME_HTTPS:
    case DL_SCHEME_HTTP:
      return dl_http_read(static_cast<dl_http_conn *>(h->proto), buf, len, err);
    case DL_SCHEME_TFTP:
      return dl_tftp_read(static_cast<dl_tftp_conn *>(h->proto), buf, len, err);
    case DL_SCHEME_FTP:
      return dl_ftp_read(static_cast<dl_ftp_conn *>(h->proto), buf, len, err);
    default:
      log_failure("Protocol Type Not Support!\n");
      return -1;
  }
}

DL_EXPORT void dl_close(dl_handle *h) {
  log_entry("dl_close");
  if (h == nullptr) {
    log_failure("Invalid Param!\n");
    return;
  }
  switch (h->scheme) {
    case DL_SCHEME_HTTPS:
    case DL_SCHEME_HTTP:
      dl_http_close(static_cast<dl_http_conn *>(h->proto));
      break;
    case DL_SCHEME_TFTP:
      dl_tftp_close(static_cast<dl_tftp_conn *>(h->proto));
      break;
    case DL_SCHEME_FTP:
      dl_ftp_close(static_cast<dl_ftp_conn *>(h->proto));
      break;
    default:
      break;
  }
  free(h);
}

}  // extern "C"

// The FTP client's entry points until the client itself is built: each
// refuses with a log line and DL_ERR_FAIL, so the front door's FTP
// branches are in place and fail cleanly.
#include "core/core.h"

namespace {

int refuse(dl_error *err) {
  libq_log(quarry::kModFtp, quarry::kLogError, "FTP client not available\n");
  quarry::set_error(err, DL_ERR_FAIL);
  return -1;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_ftp_open(dl_ftp_conn **out, const char *, int, const char *, const char *,
                          const char *, dl_error *err) {
  if (out != nullptr) *out = nullptr;
  return refuse(err);
}

DL_EXPORT int dl_ftp_read(dl_ftp_conn *, void *, int, dl_error *err) { return refuse(err); }

DL_EXPORT void dl_ftp_close(dl_ftp_conn *) {}

DL_EXPORT int dl_ftp_recv_to_file(const char *, int, const char *, const char *, const char *,
                                  const char *, dl_error *err) {
  return refuse(err);
}

DL_EXPORT int dl_ftp_send_file(const char *, int, const char *, const char *, const char *,
                               const char *, int, int, dl_error *err) {
  return refuse(err);
}

}  // extern "C"

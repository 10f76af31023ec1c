// The TFTP client's entry points until the client itself is built: each
// refuses with a log line and DL_ERR_FAIL, so the front door's TFTP
// branches are in place and fail cleanly.
#include "core/core.h"

namespace {

int refuse(dl_error *err) {
  libq_log(quarry::kModTftp, quarry::kLogError, "TFTP client not available\n");
  quarry::set_error(err, DL_ERR_FAIL);
  return -1;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_tftp_open(dl_tftp_conn **out, const char *, int, const char *, dl_error *err) {
  if (out != nullptr) *out = nullptr;
  return refuse(err);
}

DL_EXPORT int dl_tftp_read(dl_tftp_conn *, void *, int, dl_error *err) { return refuse(err); }

DL_EXPORT void dl_tftp_close(dl_tftp_conn *) {}

DL_EXPORT int dl_tftp_recv_to_file(const char *, int, const char *, const char *, dl_error *err) {
  return refuse(err);
}

DL_EXPORT int dl_tftp_send_file(const char *, int, const char *, const char *, dl_error *err) {
  return refuse(err);
}

}  // extern "C"

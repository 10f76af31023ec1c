// Where the front door takes credentials from, and how it names them in
// the log.
#include "core/core.h"
#include "transfer/transfer.h"

namespace quarry {

FtpLogin ftp_login(const dl_request *req, const dl_url_parts &parts) {
  FtpLogin login;
  login.user = parts.user != nullptr ? parts.user : req->user;
  login.password = parts.password != nullptr ? parts.password : req->password;
  return login;
}

void log_ftp_login(const FtpLogin &login) {
  libq_log(kModCommon, kLogInfo, "FTP Login Info:uername=%s passwd=%s\n",
           login.user != nullptr ? login.user : "(null)", "******");
}

void log_entry(const char *function) {
  libq_log(kModCommon, kLogInfo, "Enter Func %s....\n", function);
}

void log_failure(const char *line) { libq_log(kModCommon, kLogError, "%s", line); }

bool HttpParam::rebuild(const dl_request *req, const dl_url_parts &parts) {
  if (url_rebuild(req, &param_, &parts) == 0) return true;
  log_failure("Memory exhault!\n");
  return false;
}

}  // namespace quarry

// Logging in on the control connection (RFC 959, 4.1.1): USER, PASS when
// the server asks for it, then binary type.
#include "ftp/ftp_conn.h"

namespace {

constexpr char kAnonymous[] = "anonymous";
constexpr int kLoggedIn = 230;
constexpr int kNeedPassword = 331;
constexpr int kCommandOk = 200;

}  // namespace

extern "C" {

DL_EXPORT int ftp_login(dl_ftp_conn *conn, const char *user, const char *password, char *reply) {
  const char *name = (user != nullptr && user[0] != '\0') ? user : kAnonymous;
  int ret = ftp_command(conn, "USER", name, reply, quarry::kFtpReplySize, 0, 0);
  if (ret < 0) return ret;
  if (ret == kNeedPassword) {
    ret = ftp_command(conn, "PASS", password, reply, quarry::kFtpReplySize, kLoggedIn,
                      DL_ERR_FTP_PASS);
    if (ret < 0) return ret;
  } else if (ret != kLoggedIn) {
    return DL_ERR_FTP_USER;
  }
  ret = ftp_command(conn, "TYPE", "I", reply, quarry::kFtpReplySize, kCommandOk,
                    DL_ERR_FTP_REPLY);
  return ret < 0 ? ret : 0;
}

}  // extern "C"

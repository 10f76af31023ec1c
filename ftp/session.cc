// What both directions do before their transfer command: connect, read
// the greeting, log in (falling back to anonymous), open the passive data
// connection; and closing the handle.
#include <string.h>
#include <unistd.h>

#include "ftp/ftp_conn.h"

namespace {

constexpr int kServiceReady = 220;
// Descriptors 0 to 2 are never ours to close.
constexpr int kLowestOwnFd = 3;

// Logs in as |user|, then, when a user was named and refused, once more
// as the anonymous user with an empty password ("PASS \r\n").
int login_with_fallback(dl_ftp_conn *conn, const char *user, const char *password,
                        bool announce, char *reply) {
  int ret = ftp_login(conn, user, password, reply);
  if (ret == 0) return 0;
  if (user == nullptr || user[0] == '\0') {
    quarry::ftp_log(quarry::kLogError, "ftp login error\n");
    return ret;
  }
  if (announce) quarry::ftp_log(quarry::kLogNotice, "login failed,Try anonymous!\n");
  ret = ftp_login(conn, "", "", reply);
  if (ret != 0) quarry::ftp_log(quarry::kLogError, "ftp login error\n");
  return ret;
}

}  // namespace

namespace quarry {
namespace {

// Whether an open's common arguments are acceptable; logs the line.
bool ftp_open_args_ok(const char *host, int port) {
  if (port > kFtpMaxPort || strnlen(host, kFtpHostRoom) >= kFtpHostRoom) {
    ftp_log(kLogError, "Invalid Parameter\n");
    return false;
  }
  return true;
}

// Steps shared by both open functions: a live handle for |host|, the
// control connection, the greeting, the login (with the anonymous
// fallback, announced only when |announce_fallback|), the passive data
// connection. Returns the handle, or null with |*code| set and |reply|
// holding the last reply (kFtpReplySize bytes).
dl_ftp_conn *ftp_session_open(const char *host, int port, const char *user, const char *password,
                              bool announce_fallback, char *reply, int *code) {
  reply[0] = '\0';
  FtpConnPtr conn(static_cast<dl_ftp_conn *>(calloc(1, sizeof(dl_ftp_conn))));
  if (!conn) {
    *code = DL_ERR_NOMEM;
    return nullptr;
  }
  conn->magic = DL_FTP_MAGIC;
  const TransferSettings settings = transfer_settings();
  snprintf(conn->host, sizeof(conn->host), "%s", host);

  int sock = dl_connect(host, port != 0 ? port : kFtpDefaultPort, settings.ipv6_enable,
                        settings.timeout_s);
  if (sock < 1) {
    ftp_log(kLogError, "Connect Error\n");
    *code = sock;
    return nullptr;
  }
  conn->control = sock;

  // Whatever went wrong with the greeting, the caller sees the server's
  // words.
  if (ftp_read_reply(conn.get(), reply, kFtpReplySize, kServiceReady, DL_ERR_FTP_REPLY) < 0) {
    ftp_log(kLogError, "Response error\n");
    *code = DL_ERR_FTP_REPLY;
    return nullptr;
  }
  int ret = login_with_fallback(conn.get(), user, password, announce_fallback, reply);
  if (ret != 0) {
    *code = ret;
    return nullptr;
  }
  ret = dl_ftp_create_data_conn(conn.get(), reply, kFtpReplySize, settings.timeout_s);
  if (ret != 0) {
    ftp_log(kLogError, "Create data connection failed\n");
    *code = ret;
    return nullptr;
  }
  return conn.release();
}

}  // namespace

int ftp_open(dl_ftp_conn **out, const char *host, int port, const char *user,
             const char *password, const char *path, bool announce_fallback,
             FtpStartStep start, const void *context, dl_error *err) {
  if (path == nullptr || out == nullptr || host == nullptr || err == nullptr) {
    ftp_log(kLogError, "Invalid Parameter\n");
    if (out != nullptr) *out = nullptr;
    if (err != nullptr) set_error(err, DL_ERR_PARAM);
    return -1;
  }
  *out = nullptr;
  if (!ftp_open_args_ok(host, port)) {
    set_error(err, DL_ERR_PARAM);
    return -1;
  }
  memset(err, 0, sizeof(*err));
  char reply[kFtpReplySize];
  int code = 0;
  FtpConnPtr conn(ftp_session_open(host, port, user, password, announce_fallback, reply, &code));
  if (conn) code = start(conn.get(), context, reply);
  if (code != 0) {
    ftp_fail(err, code, reply);
    return -1;
  }
  *out = conn.release();
  return 0;
}

}  // namespace quarry

extern "C" {

DL_EXPORT void dl_ftp_close(dl_ftp_conn *conn) {
  if (conn == nullptr || conn->magic != DL_FTP_MAGIC) {
    quarry::ftp_log(quarry::kLogError, "ftp close with invalid parameter\n");
    return;
  }
  if (conn->control >= kLowestOwnFd) close(conn->control);
  if (conn->data >= kLowestOwnFd && !conn->data_closed) close(conn->data);
  free(conn->rx);
  memset(conn, 0, sizeof(*conn));
  free(conn);
}

}  // extern "C"

// The control connection: sending commands, and what every step of the
// client shares (its log lines, error reports and settings).
#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <sys/socket.h>

#include "ftp/ftp_conn.h"

namespace {

// The password never reaches the log, not even in a failure line.
constexpr char kPassCommand[] = "PASS";
constexpr char kMaskedArgument[] = "******";

void log_send_failure(const char *command, const char *argument, const char *line) {
  if (argument != nullptr && strcmp(command, kPassCommand) == 0) {
    libq_log(quarry::kModFtp, quarry::kLogError, "Error send command %s %s\r\n\n", command,
             kMaskedArgument);
    return;
  }
  libq_log(quarry::kModFtp, quarry::kLogError, "Error send command %s\n", line);
}

int format_line(char *out, size_t room, const char *command, const char *argument) {
  if (argument != nullptr) return snprintf(out, room, "%s %s\r\n", command, argument);
  return snprintf(out, room, "%s\r\n", command);
}

}  // namespace

namespace quarry {

void ftp_log(int level, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  libq_vlog(kModFtp, level, format, ap);
  va_end(ap);
}

void ftp_fail(dl_error *err, int code, const char *reply) {
  if (err == nullptr) return;
  if (code == DL_ERR_FTP_REPLY && reply != nullptr) {
    err->code = code;
    snprintf(err->msg, kErrorTextRoom, "%s", reply);
    return;
  }
  set_error(err, code);
}

uint32_t ftp_reply_number(const char *reply) {
  constexpr size_t kCodeAndBlank = 4;
  if (strlen(reply) < kCodeAndBlank) return 0;
  uint64_t value = 0;
  for (const char *p = reply + kCodeAndBlank; *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > UINT32_MAX) return UINT32_MAX;
  }
  return static_cast<uint32_t>(value);
}

}  // namespace quarry

extern "C" {

DL_EXPORT int ftp_send_all(int sock, const void *data, int len) {
  if (len < 1) return 0;
  const char *bytes = static_cast<const char *>(data);
  int done = 0;
  while (done < len) {
    // MSG_NOSIGNAL: a server that went away fails the send instead of
    // ending the phone's process with SIGPIPE.
    ssize_t n = send(sock, bytes + done, static_cast<size_t>(len - done), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return DL_ERR_SEND;
    }
    done += static_cast<int>(n);
  }
  return 0;
}

DL_EXPORT int ftp_command(dl_ftp_conn *conn, const char *command, const char *argument,
                          char *reply, int reply_len, int expected, int fail_code) {
  if (conn == nullptr || command == nullptr) return DL_ERR_PARAM;
  // Even an empty argument gets its blank: "PASS \r\n".
  int len = format_line(nullptr, 0, command, argument);
  if (len < 0) return DL_ERR_PARAM;
  size_t room = static_cast<size_t>(len) + 1;
  quarry::CharBuffer line(static_cast<char *>(malloc(room)));
  if (!line) return DL_ERR_NOMEM;
  format_line(line.get(), room, command, argument);
  if (ftp_send_all(conn->control, line.get(), len) != 0) {
    log_send_failure(command, argument, line.get());
    return DL_ERR_SEND;
  }
  return ftp_read_reply(conn, reply, reply_len, expected, fail_code);
}

}  // extern "C"

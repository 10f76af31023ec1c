// Reading the server's replies on the control connection (RFC 959, 4.2):
// whole lines, never a byte past the line's end, until a final reply.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include "ftp/ftp_conn.h"
#include "net/net.h"

namespace {

using quarry::CharBuffer;

constexpr size_t kLineStart = 256;
constexpr int kCodeDigits = 3;

enum LineResult { kLineDone, kLineFailed };

// A final reply starts with three digits and a blank; a dash there, or
// anything else, is a line of a multi-line reply.
bool is_final(const char *line) {
  for (int i = 0; i < kCodeDigits; ++i) {
    if (line[i] < '0' || line[i] > '9') return false;
  }
  return line[kCodeDigits] == ' ';
}

int reply_code(const char *line) {
  return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
}

// Copies |len| held bytes into |reply| with a terminator; the caller has
// checked that they fit.
void copy_out(char *reply, const char *held, size_t len) {
  memcpy(reply, held, len);
  reply[len] = '\0';
}

// Reads one line into |reply|. 0, or a negative code.
int read_line(int sock, char *reply, int reply_len, int timeout_s) {
  size_t capacity = kLineStart;
  CharBuffer buf(static_cast<char *>(malloc(capacity)));
  if (!buf) return DL_ERR_NOMEM;
  size_t fill = 0;
  for (;;) {
    if (dl_select(sock, quarry::kWaitReadable, timeout_s) < 1) {
      quarry::ftp_log(quarry::kLogError, "dl_select error! errno %d\n", errno);
      return DL_ERR_READ;
    }
    ssize_t peeked = recv(sock, buf.get() + fill, capacity - 1 - fill, MSG_PEEK);
    if (peeked < 0) return DL_ERR_READ;
    // The server closed before a final reply: none can come any more, and
    // every further read would bring an empty "line".
    if (peeked == 0) {
      copy_out(reply, buf.get(), fill);
      return DL_ERR_READ;
    }
    size_t seen = fill + static_cast<size_t>(peeked);
    const char *end = static_cast<const char *>(memmem(buf.get(), seen, "\r\n", 2));
    size_t take = end != nullptr ? static_cast<size_t>(end - buf.get()) + 2 - fill
                                 : static_cast<size_t>(peeked);
    ssize_t got = recv(sock, buf.get() + fill, take, 0);
    if (got < 0) return DL_ERR_READ;
    fill += static_cast<size_t>(got);
    buf.get()[fill] = '\0';
    if (fill + 1 >= static_cast<size_t>(reply_len)) {
      quarry::ftp_log(quarry::kLogError, "Buffer not enough! buffer len %d\n", reply_len);
      return -1;
    }
    if (got == 0) {
      copy_out(reply, buf.get(), fill);
      return DL_ERR_READ;
    }
    if (end != nullptr && static_cast<size_t>(got) == take) {
      copy_out(reply, buf.get(), fill - 2);
      return 0;
    }
    if (fill == capacity - 1) {
      size_t grown = capacity * 2;
      if (static_cast<size_t>(reply_len) < grown) grown = static_cast<size_t>(reply_len);
      char *bigger = static_cast<char *>(realloc(buf.get(), grown));
      if (bigger == nullptr) return DL_ERR_NOMEM;
      buf.release();
      buf.reset(bigger);
      capacity = grown;
    }
  }
}

}  // namespace

extern "C" {

DL_EXPORT int ftp_read_reply(dl_ftp_conn *conn, char *reply, int reply_len, int expected,
                             int fail_code) {
  if (conn == nullptr || reply == nullptr || reply_len < 1) return DL_ERR_PARAM;
  reply[0] = '\0';
  for (;;) {
    const int timeout_s = quarry::cfg_read(&dl_config::timeout_s);
    int ret = read_line(conn->control, reply, reply_len, timeout_s);
    if (ret != 0) return ret;
    if (is_final(reply)) break;
  }
  int code = reply_code(reply);
  if (expected == 0 || code == expected) return code;
  return fail_code;
}

}  // extern "C"

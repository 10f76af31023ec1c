// The passive data connection: EPSV (RFC 2428, 3) when IPv6 is enabled,
// PASV (RFC 959, 4.1.2) otherwise or when the server refuses EPSV.
#include <string.h>

#include "ftp/ftp_conn.h"

namespace {

constexpr int kEpsvOk = 229;
constexpr int kPasvOk = 227;
constexpr char kNetworkRefused[] = "522";
constexpr size_t kPassiveRoom = 512;
constexpr int kPortHigh = 256;

// A decimal number at |p|, saturated: it only has to be out of range for
// the connect to refuse it, and p1 * 256 + p2 must not overflow.
int read_number(const char *p) {
  constexpr int kCap = 100000;
  int value = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (value < kCap) value = value * 10 + (*p - '0');
  }
  return value;
}

// A number field of the PASV text as atoi reads it: blanks, a sign, digits.
int read_field(const char *p) {
  while (*p == ' ') ++p;
  bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  int value = read_number(p);
  return negative ? -value : value;
}

int format_error() {
  quarry::ftp_log(quarry::kLogError, "Passive mode string format error\n");
  return DL_ERR_FTP_REPLY;
}

}  // namespace

namespace quarry {

bool ftp_passive_text(const char *reply, char *out, size_t out_size) {
  const char *open = strchr(reply, '(');
  if (open == nullptr) return false;
  const char *close = strchr(open + 1, ')');
  if (close == nullptr || out_size == 0) return false;
  size_t len = static_cast<size_t>(close - open - 1);
  if (len >= out_size) len = out_size - 1;
  memcpy(out, open + 1, len);
  out[len] = '\0';
  return true;
}

bool ftp_parse_epsv(const char *text, int *port) {
  while (*text != '\0' && (*text < '0' || *text > '9')) ++text;
  if (*text == '\0') return false;
  *port = read_number(text);
  return true;
}

bool ftp_parse_pasv(const char *text, char *host, size_t host_size, int *port) {
  if (host_size == 0) return false;
  snprintf(host, host_size, "%s", text);
  char *comma = strrchr(host, ',');
  if (comma == nullptr) return false;
  int p2 = read_field(comma + 1);
  *comma = '\0';
  comma = strrchr(host, ',');
  if (comma == nullptr) return false;
  int p1 = read_field(comma + 1);
  *comma = '\0';
  *port = p1 * kPortHigh + p2;
  for (char *c = host; *c != '\0'; ++c) {
    if (*c == ',') *c = '.';
  }
  return true;
}

}  // namespace quarry

extern "C" {

DL_EXPORT int dl_ftp_create_data_conn(dl_ftp_conn *conn, char *reply, int reply_len,
                                      int timeout_s) {
  if (conn == nullptr || reply == nullptr) return DL_ERR_PARAM;
  int extended = quarry::cfg_read(&dl_config::ipv6_enable);
  int ret;
  if (extended != 0) {
    ret = ftp_command(conn, "EPSV", nullptr, reply, reply_len, kEpsvOk, DL_ERR_FTP_REPLY);
    if (ret == DL_ERR_FTP_REPLY && strstr(reply, kNetworkRefused) != nullptr) {
      quarry::ftp_log(quarry::kLogWarning, "DL_ERRFTP:[%s], Try use PASV\n", reply);
      extended = 0;
      ret = ftp_command(conn, "PASV", nullptr, reply, reply_len, kPasvOk, DL_ERR_FTP_REPLY);
    }
  } else {
    ret = ftp_command(conn, "PASV", nullptr, reply, reply_len, kPasvOk, DL_ERR_FTP_REPLY);
  }
  if (ret < 0) return ret;

  char text[kPassiveRoom];
  if (!quarry::ftp_passive_text(reply, text, sizeof(text))) return format_error();
  int sock;
  if (extended != 0) {
    int port = 0;
    if (!quarry::ftp_parse_epsv(text, &port)) return format_error();
    sock = dl_connect(conn->host, port, 1, timeout_s);
  } else {
    // The address is the server's word, not the control connection's peer.
    char host[kPassiveRoom];
    int port = 0;
    if (!quarry::ftp_parse_pasv(text, host, sizeof(host), &port)) return DL_ERR_FTP_REPLY;
    sock = dl_connect(host, port, 0, timeout_s);
  }
  if (sock < 0) return sock;
  conn->data = sock;
  conn->data_closed = false;
  return 0;
}

}  // extern "C"

// Building, sending and receiving TFTP packets (RFC 1350 section 5), and
// the block-size answer of an OACK (RFC 2347, RFC 2348).
#include <errno.h>
#include <string.h>

#include "net/net.h"
#include "tftp/tftp.h"

namespace quarry {
namespace tftp {

namespace {

constexpr const char kMode[] = "octet";
constexpr const char kBlksizeOption[] = "blksize";
constexpr const char kWantedBlksizeText[] = "1432";
constexpr const char kErrBlksizeText[] = "err blksize";
// A sender that keeps the socket full must not keep the client draining.
constexpr int kDrainLimit = 128;
// Digits that can still be told apart from any block size allowed.
constexpr uint32_t kBlksizeSaturate = 100000;

socklen_t server_len(const dl_tftp_conn *conn) {
  return conn->server.sa.sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

// Appends |text| with its NUL at |at|; returns the new end.
size_t put_text(uint8_t *out, size_t at, const char *text) {
  size_t n = strlen(text) + 1;
  memcpy(out + at, text, n);
  return at + n;
}

// The next NUL-terminated string in [*p, end); one cut off by the end of
// the packet ends there. False when nothing is left.
bool next_text(const uint8_t **p, const uint8_t *end, const char **text, size_t *len) {
  if (*p >= end) return false;
  const uint8_t *nul = static_cast<const uint8_t *>(memchr(*p, '\0', static_cast<size_t>(end - *p)));
  const uint8_t *stop = nul != nullptr ? nul : end;
  *text = reinterpret_cast<const char *>(*p);
  *len = static_cast<size_t>(stop - *p);
  *p = nul != nullptr ? nul + 1 : end;
  return true;
}

// Leading decimal digits of |text|; anything else counts as 0. Large
// values stop growing once they are out of every allowed range.
uint32_t parse_blksize(const char *text) {
  uint32_t value = 0;
  for (const char *c = text; *c >= '0' && *c <= '9'; ++c) {
    value = value * 10 + static_cast<uint32_t>(*c - '0');
    if (value >= kBlksizeSaturate) return kBlksizeSaturate;
  }
  return value;
}

void send_blksize_error(const dl_tftp_conn *conn) {
  // Opcode, error code, text and its NUL: 16 bytes.
  uint8_t pkt[kHeaderLen + sizeof(kErrBlksizeText)];
  put16(pkt, kError);
  put16(pkt + 2, kErrOption);
  memcpy(pkt + kHeaderLen, kErrBlksizeText, sizeof(kErrBlksizeText));
  if (!send_packet(conn, pkt, sizeof(pkt))) {
    libq_log(kModTftp, kLogError, "Send %d err error! errno\n", kErrOption);
  }
}

}  // namespace

void log_error(const char *line) { libq_log(kModTftp, kLogError, "%s", line); }

size_t build_request(uint16_t opcode, const char *remote_name, uint8_t *out) {
  if (remote_name[0] == '/') ++remote_name;
  put16(out, opcode);
  size_t at = put_text(out, 2, remote_name);
  at = put_text(out, at, kMode);
  at = put_text(out, at, kBlksizeOption);
  return put_text(out, at, kWantedBlksizeText);
}

bool send_packet(const dl_tftp_conn *conn, const void *data, size_t len) {
  ssize_t sent = sendto(conn->socket, data, len, 0, &conn->server.sa, server_len(conn));
  return sent == static_cast<ssize_t>(len);
}

bool send_request(const dl_tftp_conn *conn, const uint8_t *req, size_t len, dl_error *err) {
  ssize_t sent = sendto(conn->socket, req, len, 0, &conn->server.sa, server_len(conn));
  if (sent == static_cast<ssize_t>(len)) return true;
  libq_log(kModTftp, kLogError, "Send Error error! errno = %d ret = %d send_size = %d\n", errno,
           static_cast<int>(sent), static_cast<int>(len));
  set_error(err, DL_ERR_SEND);
  return false;
}

bool send_ack(const dl_tftp_conn *conn, uint16_t block) {
  uint8_t pkt[kAckLen];
  put16(pkt, kAck);
  put16(pkt + 2, block);
  if (send_packet(conn, pkt, sizeof(pkt))) return true;
  libq_log(kModTftp, kLogError, "Send %d ack error! errno\n", block);
  return false;
}

bool wait_reply(const dl_tftp_conn *conn, int timeout_s, dl_error *err) {
  if (dl_select(conn->socket, kWaitReadable, timeout_s) > 0) return true;
  libq_log(kModTftp, kLogError, "Error Select! errno %d\n", errno);
  set_error(err, DL_ERR_READ);
  return false;
}

int receive(dl_tftp_conn *conn, uint8_t *pkt, size_t room, dl_error *err) {
  sockaddr_storage from;
  socklen_t from_len;
  ssize_t n;
  do {
    from_len = sizeof(from);
    n = recvfrom(conn->socket, pkt, room, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    libq_log(kModTftp, kLogError, "Recvfrom error! errno %d\n", errno);
    set_error(err, DL_ERR_READ);
    return -1;
  }
  // The server answers from a transfer port of its own; whatever port the
  // last packet came from is where the next one goes.
  if (conn->server.sa.sa_family == AF_INET6 && from.ss_family == AF_INET6) {
    conn->server.in6.sin6_port = reinterpret_cast<const sockaddr_in6 *>(&from)->sin6_port;
  } else if (conn->server.sa.sa_family == AF_INET && from.ss_family == AF_INET) {
    conn->server.in4.sin_port = reinterpret_cast<const sockaddr_in *>(&from)->sin_port;
  }
  return static_cast<int>(n);
}

bool negotiate(dl_tftp_conn *conn, const uint8_t *pkt, size_t len) {
  libq_log(kModTftp, kLogInfo, "recv OACK\n");
  const uint8_t *p = pkt + 2;
  const uint8_t *end = pkt + len;
  const char *name;
  size_t name_len;
  bool found = false;
  char value[kMaxPacket + 1] = "";
  while (next_text(&p, end, &name, &name_len)) {
    const char *text = "";
    size_t text_len = 0;
    next_text(&p, end, &text, &text_len);
    if (name_len == strlen(kBlksizeOption) && strncasecmp(name, kBlksizeOption, name_len) == 0) {
      memcpy(value, text, text_len);
      value[text_len] = '\0';
      found = true;
      break;
    }
  }
  if (!found) {
    libq_log(kModTftp, kLogInfo, "server only supports blocksize of %d\n", kDefaultBlksize);
    conn->blksize = kDefaultBlksize;
    return true;
  }
  uint32_t blksize = parse_blksize(value);
  if (blksize < kMinBlksize || blksize > kWantedBlksize) {
    libq_log(kModTftp, kLogError, "bad blocksize '%s'\n", value);
    log_error("err blksize\n");
    send_blksize_error(conn);
    return false;
  }
  libq_log(kModTftp, kLogInfo, "using blksize %u\n", blksize);
  conn->blksize = static_cast<int32_t>(blksize);
  return true;
}

void drain(const dl_tftp_conn *conn) {
  uint8_t discard[kMaxPacket];
  int count = 0;
  while (count < kDrainLimit && dl_select(conn->socket, kWaitReadable, 0) > 0) {
    if (recv(conn->socket, discard, sizeof(discard), 0) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    ++count;
  }
  log_error("tftp syn err\n");
  libq_log(kModTftp, kLogNotice, "discarded %d packets\n", count);
}

}  // namespace tftp
}  // namespace quarry

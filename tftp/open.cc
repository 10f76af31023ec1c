// Opening a download (RRQ) or an upload (WRQ with its negotiation), and
// closing either.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "net/net.h"
#include "tftp/tftp.h"

namespace quarry {
namespace tftp {

namespace {

// Owns a handle until the open succeeds.
struct ConnFree {
  void operator()(dl_tftp_conn *conn) const { conn_free(conn); }
};
using ConnPtr = std::unique_ptr<dl_tftp_conn, ConnFree>;

void log_bad_open() { log_error("tftp open with invalid parmeter\n"); }

// The checks both opens share, a fresh handle bound to a local socket for
// the server. Null (|err| filled) on failure.
ConnPtr open_common(dl_tftp_conn **out, const char *host, int port, const char *remote_name,
                    dl_error *err, bool upload) {
  if (out == nullptr || port < 0 || port > kMaxPort || remote_name == nullptr ||
      host == nullptr) {
    if (out != nullptr) *out = nullptr;
    log_bad_open();
    set_error(err, DL_ERR_PARAM);
    return nullptr;
  }
  *out = nullptr;
  if (err == nullptr) {
    log_bad_open();
    return nullptr;
  }
  if (strnlen(remote_name, kMaxRemoteName + 1) > kMaxRemoteName) {
    log_bad_open();
    set_error(err, DL_ERR_PARAM);
    return nullptr;
  }
  memset(err, 0, sizeof(*err));
  if (!upload && cfg_read(&dl_config::initialised) == 0) {
    log_error("config doesn't init\n");
    set_error(err, DL_ERR_NO_CONFIG);
    return nullptr;
  }
  ConnPtr conn(conn_new(upload ? 0 : 1));
  if (!conn) {
    set_error(err, DL_ERR_NOMEM);
    return nullptr;
  }
  int effective_port = port != 0 ? port : kDefaultPort;
  libq_log(kModTftp, kLogNotice, "tftp open begin, host: %s, port:%d, remote_name:%s\n", host,
           effective_port, remote_name);
  int rc = set_up_socket(conn.get(), host, effective_port);
  if (rc != 0) {
    set_error(err, rc);
    return nullptr;
  }
  return conn;
}

// Builds the request into |req| (kRequestArea bytes) and says it goes out;
// returns its length.
size_t announce_request(uint16_t opcode, const char *remote_name, uint8_t *req) {
  size_t len = build_request(opcode, remote_name, req);
  libq_log(kModTftp, kLogInfo, "Send Request Packet\n");
  return len;
}

int opened(dl_tftp_conn **out, ConnPtr conn) {
  libq_log(kModTftp, kLogNotice, "tftp open success\n");
  *out = conn.release();
  return 0;
}

// The WRQ's replies: ACK 0 or an OACK completes it; anything else asks
// for the request again.
bool negotiate_write(dl_tftp_conn *conn, const uint8_t *req, size_t req_len, dl_error *err) {
  const int timeout = cfg_read(&dl_config::timeout_s);
  uint8_t pkt[kMaxPacket];
  for (int sends = 0; sends < kRetries; ++sends) {
    if (!send_request(conn, req, req_len, err)) return false;
    if (!wait_reply(conn, timeout, err)) return false;
    int n = receive(conn, pkt, static_cast<size_t>(conn->recv_size), err);
    if (n < 0) return false;
    uint16_t opcode = opcode_of(pkt, static_cast<size_t>(n));
    if (opcode == kAck && n >= kHeaderLen) {
      if (get16(pkt + 2) == 0) return true;
      drain(conn);
    } else if (opcode == kOack) {
      if (!negotiate(conn, pkt, static_cast<size_t>(n))) {
        set_error(err, DL_ERR_READ);
        return false;
      }
      conn->recv_size = conn->blksize + kHeaderLen;
      return true;
    }
  }
  set_error(err, DL_ERR_READ);
  return false;
}

}  // namespace

dl_tftp_conn *conn_new(uint16_t block) {
  auto *conn = static_cast<dl_tftp_conn *>(calloc(1, sizeof(dl_tftp_conn)));
  if (conn == nullptr) return nullptr;
  conn->magic = DL_TFTP_MAGIC;
  conn->socket = -1;
  conn->block = block;
  conn->blksize = kDefaultBlksize;
  conn->recv_size = kDefaultBlksize + kHeaderLen;
  return conn;
}

void conn_free(dl_tftp_conn *conn) {
  if (conn->socket >= 0) close(conn->socket);
  free(conn->spill);
  memset(conn, 0, sizeof(*conn));
  free(conn);
}

}  // namespace tftp
}  // namespace quarry

using quarry::tftp::ConnPtr;

extern "C" {

DL_EXPORT int dl_tftp_open(dl_tftp_conn **out, const char *host, int port,
                           const char *remote_name, dl_error *err) {
  namespace t = quarry::tftp;
  ConnPtr conn = t::open_common(out, host, port, remote_name, err, false);
  if (!conn) return -1;
  uint8_t req[t::kRequestArea];
  size_t req_len = t::announce_request(t::kRrq, remote_name, req);
  if (!t::send_request(conn.get(), req, req_len, err)) return -1;
  // The reply is left for dl_tftp_read; only its arrival is awaited here.
  int timeout = quarry::cfg_read(&dl_config::timeout_s);
  if (timeout < t::kOpenWaitFloor) timeout = t::kOpenWaitFloor;
  if (dl_select(conn->socket, quarry::kWaitReadable, timeout) <= 0) {
    quarry::set_error(err, DL_ERR_NOT_TFTP);
    return -1;
  }
  return t::opened(out, std::move(conn));
}

DL_EXPORT int dl_tftp_send_open(dl_tftp_conn **out, const char *host, int port,
                                const char *remote_name, dl_error *err) {
  namespace t = quarry::tftp;
  ConnPtr conn = t::open_common(out, host, port, remote_name, err, true);
  if (!conn) return -1;
  uint8_t req[t::kRequestArea];
  size_t req_len = t::announce_request(t::kWrq, remote_name, req);
  if (!t::negotiate_write(conn.get(), req, req_len, err)) return -1;
  conn->block = 1;
  return t::opened(out, std::move(conn));
}

DL_EXPORT void dl_tftp_close(dl_tftp_conn *conn) {
  if (conn == nullptr || conn->magic != DL_TFTP_MAGIC) {
    quarry::tftp::log_error("tftp close with invalid parameter\n");
    return;
  }
  quarry::tftp::conn_free(conn);
}

}  // extern "C"

// dl_tftp_read: the receiving side of a download (RFC 1350 sections 4 and
// 6): OACK, DATA in sequence with its ACK, and recovery from duplicates.
#include <stdlib.h>
#include <string.h>

#include "net/net.h"
#include "tftp/tftp.h"

namespace quarry {
namespace tftp {

namespace {

// Where one read stands: the caller's buffer and what it holds so far.
struct ReadState {
  uint8_t *buf;
  int len;
  int delivered;
};

int min_int(int a, int b) { return a < b ? a : b; }

void take_from_spill(dl_tftp_conn *conn, ReadState *rs) {
  int n = min_int(conn->spill_len, rs->len);
  if (n <= 0) return;
  memcpy(rs->buf, conn->spill, static_cast<size_t>(n));
  memmove(conn->spill, conn->spill + n, static_cast<size_t>(conn->spill_len - n));
  conn->spill_len -= n;
  rs->delivered = n;
}

// Copies a DATA payload into the caller's buffer, the rest into the spill
// buffer.
void take_payload(dl_tftp_conn *conn, const uint8_t *payload, int n, ReadState *rs) {
  int fits = min_int(n, rs->len - rs->delivered);
  memcpy(rs->buf + rs->delivered, payload, static_cast<size_t>(fits));
  rs->delivered += fits;
  int rest = min_int(n - fits, static_cast<int>(kSpillSize) - conn->spill_len);
  if (rest > 0) {
    memcpy(conn->spill + conn->spill_len, payload + fits, static_cast<size_t>(rest));
    conn->spill_len += rest;
  }
}

enum class Step { kGoOn, kStop, kFail, kSpent };

// Handles one received packet of |n| bytes.
Step on_packet(dl_tftp_conn *conn, const uint8_t *pkt, int n, ReadState *rs, dl_error *err) {
  uint16_t opcode = opcode_of(pkt, static_cast<size_t>(n));
  if (opcode == kOack) {
    if (!negotiate(conn, pkt, static_cast<size_t>(n))) {
      set_error(err, DL_ERR_READ);
      return Step::kFail;
    }
    send_ack(conn, 0);
    conn->recv_size = conn->blksize + kHeaderLen;
    return Step::kSpent;
  }
  if (opcode != kData || n < kHeaderLen) return Step::kSpent;
  uint16_t block = get16(pkt + 2);
  if (block != conn->block) {
    drain(conn);
    // The server missed our last ACK: say it again.
    if (block == static_cast<uint16_t>(conn->block - 1)) send_ack(conn, block);
    return Step::kSpent;
  }
  take_payload(conn, pkt + kHeaderLen, n - kHeaderLen, rs);
  if (!send_ack(conn, block)) {
    log_error("Send Ack Error\n");
    set_error(err, DL_ERR_SEND);
    return Step::kFail;
  }
  ++conn->block;
  if (n == conn->recv_size) return Step::kGoOn;
  conn->done = 1;
  return Step::kStop;
}

}  // namespace

}  // namespace tftp
}  // namespace quarry

extern "C" {

DL_EXPORT int dl_tftp_read(dl_tftp_conn *conn, void *buf, int len, dl_error *err) {
  namespace t = quarry::tftp;
  // A negative length could only be copied past the buffer's start.
  if (buf == nullptr || conn == nullptr || err == nullptr || len < 0 ||
      conn->magic != DL_TFTP_MAGIC || conn->socket == 0) {
    t::log_error("Tftp read with invalid parameter\n");
    quarry::set_error(err, DL_ERR_PARAM);
    return -1;
  }
  if (conn->spill == nullptr) {
    conn->spill = static_cast<uint8_t *>(malloc(t::kSpillSize));
    if (conn->spill == nullptr) {
      quarry::set_error(err, DL_ERR_NOMEM);
      return -1;
    }
  }
  t::ReadState rs = {static_cast<uint8_t *>(buf), len, 0};
  t::take_from_spill(conn, &rs);
  if (conn->done != 0) return rs.delivered;

  const int timeout = quarry::cfg_read(&dl_config::timeout_s);
  int budget = t::kRetries;
  uint8_t pkt[t::kMaxPacket];
  size_t room = t::min_int(conn->recv_size, static_cast<int>(sizeof(pkt)));
  while (budget > 0 && rs.delivered < len) {
    if (!t::wait_reply(conn, timeout, err)) return -1;
    int n = t::receive(conn, pkt, room, err);
    if (n < 0) return -1;
    t::Step step = t::on_packet(conn, pkt, n, &rs, err);
    if (step == t::Step::kFail) return -1;
    if (step == t::Step::kStop) break;
    if (step == t::Step::kSpent) --budget;
    room = t::min_int(conn->recv_size, static_cast<int>(sizeof(pkt)));
  }
  if (budget == 0) {
    quarry::set_error(err, DL_ERR_READ);
    return -1;
  }
  return rs.delivered;
}

}  // extern "C"

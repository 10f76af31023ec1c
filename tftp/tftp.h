// tftp/: the TFTP client (RFC 1350 with the block-size option of RFC 2348,
// option negotiation of RFC 2347), octet mode only. The C entry points are
// declared in quarry.h; this header holds the handle and what the files of
// this folder share.
#ifndef QUARRY_TFTP_TFTP_H
#define QUARRY_TFTP_TFTP_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "core/core.h"

// One transfer. Fields in the order the phone's code has always had them.
struct dl_tftp_conn {
  uint32_t magic;       // DL_TFTP_MAGIC while live
  int32_t socket;       // UDP socket, -1 until made
  uint16_t block;       // next DATA expected (read) or to send (write)
  uint8_t *spill;       // received data the caller's buffer had no room for
  int32_t spill_len;
  int32_t done;         // the last (short) block was received or read
  union {
    sockaddr sa;
    sockaddr_in in4;
    sockaddr_in6 in6;
  } server;             // where packets go; its port is the transfer port
  int32_t blksize;      // negotiated block size
  int32_t recv_size;    // room given to recvfrom: block size + header
};

namespace quarry {
namespace tftp {

// RFC 1350 opcodes and RFC 2347's OACK.
enum Opcode : uint16_t {
  kRrq = 1,
  kWrq = 2,
  kData = 3,
  kAck = 4,
  kError = 5,
  kOack = 6,
};

constexpr int kDefaultPort = 69;
constexpr int kMaxPort = 65535;
// The block size asked for, and the bounds an OACK's answer must keep.
constexpr int kWantedBlksize = 1432;
constexpr int kMinBlksize = 24;
constexpr int kDefaultBlksize = 512;
// Opcode and block number ahead of DATA, opcode and block of an ACK.
constexpr int kHeaderLen = 4;
constexpr size_t kAckLen = 4;
constexpr size_t kSpillSize = kWantedBlksize;
// The largest packet ever read: a full DATA block of the wanted size.
constexpr size_t kMaxPacket = kWantedBlksize + kHeaderLen;
// Requests are built in an area of this size, which bounds the name.
constexpr size_t kRequestArea = 512;
constexpr size_t kMaxRemoteName = 255;
// Sends (or replies waited for) before giving up on a request, a block
// or a read.
constexpr int kRetries = 6;
// A download request waits at least this long for the first reply.
constexpr int kOpenWaitFloor = 3;
// RFC 2347: the error code that refuses an option.
constexpr uint16_t kErrOption = 8;

inline uint16_t get16(const uint8_t *p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline void put16(uint8_t *p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v & 0xff);
}

// The opcode of a received packet, 0 when it is too short to hold one.
inline uint16_t opcode_of(const uint8_t *pkt, size_t len) {
  return len >= 2 ? get16(pkt) : 0;
}

void log_error(const char *line);

// A zero-filled handle: magic set, no socket, |block| as given, block
// size 512. Null when memory runs out.
dl_tftp_conn *conn_new(uint16_t block);
// Closes the socket, frees the spill buffer, clears and frees |conn|.
void conn_free(dl_tftp_conn *conn);

// Resolves |host| and binds a UDP socket of its family on a random local
// port; the server address gets |port|. Returns 0 or a DL_ERR_* code.
int set_up_socket(dl_tftp_conn *conn, const char *host, int port);

// Writes an RRQ or WRQ for |remote_name| (at most 255 characters) into
// |out| (kRequestArea bytes); returns its length.
size_t build_request(uint16_t opcode, const char *remote_name, uint8_t *out);

// Sends |len| bytes to the server; true when all went out.
bool send_packet(const dl_tftp_conn *conn, const void *data, size_t len);
// Sends the request in |req|; on a short send logs and fails with
// DL_ERR_SEND.
bool send_request(const dl_tftp_conn *conn, const uint8_t *req, size_t len, dl_error *err);
// ACK of |block|; false (logged) when the send fell short.
bool send_ack(const dl_tftp_conn *conn, uint16_t block);

// Waits up to |timeout_s| for a reply; none: logs, fails with DL_ERR_READ.
bool wait_reply(const dl_tftp_conn *conn, int timeout_s, dl_error *err);
// Receives one packet of at most |room| bytes into |pkt| and adopts its
// source port as the transfer port. Returns its length, or -1 (logged,
// DL_ERR_READ).
int receive(dl_tftp_conn *conn, uint8_t *pkt, size_t room, dl_error *err);

// Takes the block size from an OACK (|pkt|, |len| bytes). False, with the
// option-error packet sent, when the server's value is out of bounds.
bool negotiate(dl_tftp_conn *conn, const uint8_t *pkt, size_t len);

// Discards what is pending on the socket after a sequence error.
void drain(const dl_tftp_conn *conn);

}  // namespace tftp
}  // namespace quarry

#endif  // QUARRY_TFTP_TFTP_H

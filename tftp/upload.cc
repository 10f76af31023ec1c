// Uploads: dl_tftp_send sends a file block by block over an open WRQ
// (RFC 1350 section 6), dl_tftp_send_file does the whole sequence.
#include <stdio.h>
#include <string.h>

#include "tftp/tftp.h"
#include "util/util.h"

namespace quarry {
namespace tftp {

namespace {

void log_too_large(int64_t max_size) {
  libq_log(kModTftp, kLogError, "Send file size larger than maxsize %ld\n",
           static_cast<long>(max_size));
}

// Sends one DATA packet until its ACK comes, six sends at most; after the
// sixth the block counts as delivered. False (|err| filled) on a failed
// send, a wait without reply or a receive error.
bool send_block(dl_tftp_conn *conn, const uint8_t *pkt, size_t len, int timeout, dl_error *err) {
  uint8_t reply[kMaxPacket];
  for (int sends = 0; sends < kRetries; ++sends) {
    if (!send_packet(conn, pkt, len)) {
      log_error("Send DATA Error\n");
      set_error(err, DL_ERR_SEND);
      return false;
    }
    if (!wait_reply(conn, timeout, err)) return false;
    int n = receive(conn, reply, sizeof(reply), err);
    if (n < 0) return false;
    if (opcode_of(reply, static_cast<size_t>(n)) != kAck || n < kHeaderLen) continue;
    if (get16(reply + 2) == conn->block) return true;
    if (conn->done == 0) drain(conn);
  }
  return true;
}

// Sends |file| from its current position. Returns the bytes sent or -1.
int send_stream(dl_tftp_conn *conn, FILE *file, int64_t max_size, int timeout, dl_error *err) {
  int64_t total = 0;
  for (;;) {
    uint8_t pkt[kMaxPacket];
    memset(pkt, 0, sizeof(pkt));
    size_t n = fread(pkt + kHeaderLen, 1, static_cast<size_t>(conn->blksize), file);
    if (n == 0) break;
    if (n < static_cast<size_t>(conn->blksize)) conn->done = 1;
    // A file that grows, or a device without end, stops at the limit.
    if (total + static_cast<int64_t>(n) > max_size) {
      log_too_large(max_size);
      set_error(err, DL_ERR_MAX_SIZE);
      return -1;
    }
    put16(pkt, kData);
    put16(pkt + 2, conn->block);
    if (!send_block(conn, pkt, kHeaderLen + n, timeout, err)) return -1;
    ++conn->block;
    total += static_cast<int64_t>(n);
  }
  return static_cast<int>(total);
}

const char *base_name(const char *path) {
  const char *slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

}  // namespace tftp
}  // namespace quarry

extern "C" {

DL_EXPORT int dl_tftp_send(dl_tftp_conn *conn, const char *local_path, dl_error *err) {
  namespace t = quarry::tftp;
  if (local_path == nullptr || conn == nullptr || err == nullptr ||
      conn->magic != DL_TFTP_MAGIC || conn->socket == 0) {
    t::log_error("Tftp read with invalid parameter\n");
    quarry::set_error(err, DL_ERR_PARAM);
    return -1;
  }
  const int64_t max_size = quarry::cfg_read(&dl_config::max_file_size);
  const int timeout = quarry::cfg_read(&dl_config::timeout_s);
  int64_t size = dl_get_file_size(local_path);
  if (size >= 0 && size > max_size) {
    t::log_too_large(max_size);
    quarry::set_error(err, DL_ERR_MAX_SIZE);
    return -1;
  }
  quarry::UniqueFile file(fopen(local_path, "rb"));
  if (!file) {
    libq_log(quarry::kModTftp, quarry::kLogError, "Can't open %s\n", local_path);
    quarry::set_error(err, DL_ERR_READ);
    return -1;
  }
  return t::send_stream(conn, file.get(), max_size, timeout, err);
}

DL_EXPORT int dl_tftp_send_file(const char *host, int port, const char *remote_name,
                                const char *local_path, dl_error *err) {
  namespace t = quarry::tftp;
  // Without a local file there is nothing to name the upload after, and
  // nothing to send: refuse before any request goes out.
  if (local_path == nullptr) {
    t::log_error("tftp open with invalid parmeter\n");
    quarry::set_error(err, DL_ERR_PARAM);
    return -1;
  }
  const char *name =
      (remote_name != nullptr && remote_name[0] != '\0') ? remote_name : t::base_name(local_path);
  dl_tftp_conn *conn = nullptr;
  if (dl_tftp_send_open(&conn, host, port, name, err) != 0) return -1;
  int sent = dl_tftp_send(conn, local_path, err);
  dl_tftp_close(conn);
  if (sent < 0) return -1;
  libq_log(quarry::kModTftp, quarry::kLogNotice, "send: %d bytes\n", sent);
  return 0;
}

}  // extern "C"

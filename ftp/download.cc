// Downloads: open (SIZE, then RETR), read exactly the announced size, and
// save to a local file within the size limit.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ftp/ftp_conn.h"
#include "net/net.h"
#include "util/util.h"

namespace {

using quarry::ftp_log;
using quarry::kLogError;

constexpr int kSizeOk = 213;
constexpr int kRetrHighestStart = 150;
constexpr int kPiece = 512;
// The download's receive buffer: a 2 MiB file is a few hundred receives,
// not thousands.
constexpr uint32_t kRxSize = 16384;

int read_invalid(dl_error *err) {
  ftp_log(kLogError, "ftp read with invalid parameter\n");
  if (err != nullptr) quarry::set_error(err, DL_ERR_PARAM);
  return -1;
}

// The open's last steps on a live session: SIZE, then RETR of the remote
// path |context|. 0, or the failure's code with its line logged.
int start_retrieval(dl_ftp_conn *conn, const void *context, char *reply) {
  const char *remote_path = static_cast<const char *>(context);
  ftp_log(quarry::kLogInfo, "Sending size cmd to get file size\n");
  const char *path = remote_path[0] == '/' ? remote_path + 1 : remote_path;
  int ret = ftp_command(conn, "SIZE", path, reply, quarry::kFtpReplySize, kSizeOk,
                        DL_ERR_FTP_REPLY);
  if (ret < 0) {
    ftp_log(kLogError, "Get file size error\n");
    return ret;
  }
  conn->remaining = quarry::ftp_reply_number(reply);
  ftp_log(quarry::kLogInfo, "File size:%d\n", static_cast<int>(conn->remaining));
  ret = ftp_command(conn, "RETR", path, reply, quarry::kFtpReplySize, 0, 0);
  if (ret < 0) {
    ftp_log(kLogError, "Send RETR cmd Error\n");
    return ret;
  }
  if (ret > kRetrHighestStart) {
    ftp_log(kLogError, "Server response wrong code : %d\n", ret);
    return DL_ERR_FTP_REPLY;
  }
  ftp_log(quarry::kLogNotice, "Open Success\n");
  return 0;
}

int save_failed(dl_error *err, int code) {
  quarry::set_error(err, code);
  return -1;
}

// Copies the download into |file| within |max_size|. 0, or -1 with |err|
// filled.
int copy_to_file(dl_ftp_conn *conn, FILE *file, uint32_t max_size, dl_error *err) {
  char piece[kPiece];
  uint64_t total = 0;
  for (;;) {
    int n = dl_ftp_read(conn, piece, kPiece, err);
    if (n < 0) return -1;
    if (n == 0) {
      ftp_log(quarry::kLogNotice, "recv: %d bytes\n", static_cast<int>(total));
      return 0;
    }
    total += static_cast<uint64_t>(n);
    if (total > max_size) {
      ftp_log(kLogError, "exceed max size\n");
      err->code = DL_ERR_MAX_SIZE;
      snprintf(err->msg, quarry::kErrorTextRoom, "exceed max size %d", static_cast<int>(max_size));
      return -1;
    }
    if (fwrite(piece, 1, static_cast<size_t>(n), file) != static_cast<size_t>(n)) {
      ftp_log(kLogError, "write file error\n");
      return save_failed(err, DL_ERR_FAIL);
    }
  }
}

// Hands out up to |len| buffered download bytes.
uint32_t take_buffered(dl_ftp_conn *conn, char *out, uint32_t len) {
  uint32_t n = conn->rx_end - conn->rx_start;
  if (len < n) n = len;
  if (n > 0) memcpy(out, conn->rx + conn->rx_start, n);
  conn->rx_start += n;
  return n;
}

// The failed read's line: "read error!" for a failed receive, else the
// wait's "dl_select error!".
int read_failed(bool receive_failed, int error, dl_error *err) {
  if (receive_failed) {
    ftp_log(kLogError, "read error! errno %d\n", error);
  } else {
    ftp_log(kLogError, "dl_select error! errno %d\n", error);
  }
  quarry::set_error(err, DL_ERR_READ);
  return -1;
}

// One receive of at most |len| bytes from the data connection. It waits
// for the socket only when nothing has arrived yet. Returns the count
// (above 0), or -1 with the failure logged and in |err|.
int receive(dl_ftp_conn *conn, void *into, uint32_t len, int timeout_s, dl_error *err) {
  for (;;) {
    ssize_t n = recv(conn->data, into, len, MSG_DONTWAIT);
    if (n > 0) return static_cast<int>(n);
    // The data connection ended before the announced size: nothing more
    // can come, and waiting again would only spin.
    if (n == 0) return read_failed(false, 0, err);
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      return read_failed(true, errno, err);
    }
    if (dl_select(conn->data, quarry::kWaitReadable, timeout_s) < 1) {
      return read_failed(false, errno, err);
    }
  }
}

}  // namespace

extern "C" {

DL_EXPORT int dl_ftp_open(dl_ftp_conn **out, const char *host, int port, const char *user,
                          const char *password, const char *remote_path, dl_error *err) {
  return quarry::ftp_open(out, host, port, user, password, remote_path, false, start_retrieval,
                          remote_path, err);
}

DL_EXPORT int dl_ftp_read(dl_ftp_conn *conn, void *buf, int len, dl_error *err) {
  if (buf == nullptr || conn == nullptr || err == nullptr) return read_invalid(err);
  if (conn->magic != DL_FTP_MAGIC || conn->data == 0 || conn->data_closed || len < 0) {
    return read_invalid(err);
  }
  uint32_t want = static_cast<uint32_t>(len);
  if (conn->remaining < want) want = conn->remaining;
  if (want == 0) return 0;
  char *bytes = static_cast<char *>(buf);
  uint32_t got = take_buffered(conn, bytes, want);
  if (got < want && conn->rx == nullptr) {
    // Without memory for the buffer, reading directly still works.
    conn->rx = static_cast<uint8_t *>(malloc(kRxSize));
  }
  const int timeout_s = quarry::cfg_read(&dl_config::timeout_s);
  while (got < want) {
    // A piece as large as the buffer goes straight to the caller; else
    // the buffer is filled with what the announced size still allows.
    uint32_t left = want - got;
    bool direct = conn->rx == nullptr || left >= kRxSize;
    uint32_t room = direct ? left : conn->remaining - got;
    if (room > kRxSize && !direct) room = kRxSize;
    void *into = direct ? static_cast<void *>(bytes + got) : conn->rx;
    int n = receive(conn, into, room, timeout_s, err);
    if (n < 0) return -1;
    if (direct) {
      got += static_cast<uint32_t>(n);
    } else {
      conn->rx_start = 0;
      conn->rx_end = static_cast<uint32_t>(n);
      got += take_buffered(conn, bytes + got, left);
    }
  }
  conn->remaining -= want;
  return static_cast<int>(want);
}

DL_EXPORT int dl_ftp_recv_to_file(const char *host, int port, const char *user,
                                  const char *password, const char *remote_path,
                                  const char *local_path, dl_error *err) {
  dl_ftp_conn *raw = nullptr;
  if (dl_ftp_open(&raw, host, port, user, password, remote_path, err) != 0) return -1;
  quarry::FtpConnPtr conn(raw);
  const char *name = local_path != nullptr ? local_path : quarry::ftp_download_name(remote_path);
  quarry::SaveStream out;
  if (!quarry::open_save_stream(name, &out)) {
    // Nothing was created, so nothing is removed: the name may be someone
    // else's file that could not be opened for writing.
    ftp_log(kLogError, "Open file for recv fail!\n");
    return -1;
  }
  const uint32_t max_size = quarry::cfg_read(&dl_config::max_file_size);
  int ret = copy_to_file(conn.get(), out.file.get(), max_size, err);
  conn.reset();
  if (ret == 0 && fclose(out.file.release()) != 0) {
    ftp_log(kLogError, "write file error\n");
    ret = save_failed(err, DL_ERR_FAIL);
  }
  if (ret != 0) {
    out.file.reset();
    remove(name);
    return -1;
  }
  return 0;
}

}  // extern "C"

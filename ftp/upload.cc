// Uploads: choose between appending and storing, send the local file over
// the data connection, check the transfer reply.
#include <errno.h>
#include <unistd.h>

#include "ftp/ftp_conn.h"
#include "net/net.h"

namespace {

using quarry::ftp_log;
using quarry::kLogError;
using quarry::kLogInfo;

constexpr int kFileNotFound = 550;
constexpr int kSizeOk = 213;
constexpr int kTransferStarting = 125;
constexpr int kOpeningData = 150;
constexpr int kTransferDone = 226;
constexpr int kClosing = 221;
constexpr size_t kSendPiece = 8192;
constexpr char kNoLocalSize[] = "cannot get local file size\n";

// Decides the post mode from the server's size of |remote| and the local
// size, then starts APPE or STOR. 0, or the failure's code; |reply| holds
// the last reply (or the text to report for DL_ERR_FTP_REPLY).
int start_sending(dl_ftp_conn *conn, const char *local_path, const char *remote, int post_mode,
                  int limit_mode, uint32_t max_size, char *reply) {
  int forced = 0;
  uint64_t remote_size = 0;
  int ret = ftp_command(conn, "SIZE", remote, reply, quarry::kFtpReplySize, 0, 0);
  if (ret < 0) {
    ftp_log(kLogError, "Get file size error\n");
    return ret;
  }
  if (ret == kFileNotFound) {
    forced = quarry::kFtpStore;
    ftp_log(kLogInfo, "File not found, use STOR\n");
  } else if (ret == kSizeOk) {
    remote_size = quarry::ftp_reply_number(reply);
  }
  int32_t local_size = dl_get_file_size(local_path);
  if (local_size < 0) {
    ftp_log(kLogError, "%s", kNoLocalSize);
    snprintf(reply, quarry::kFtpReplySize, "%s", kNoLocalSize);
    return DL_ERR_FTP_REPLY;
  }
  int mode = post_mode;
  if (max_size < remote_size + static_cast<uint64_t>(local_size)) {
    if (limit_mode == quarry::kFtpLimitStore) {
      ftp_log(kLogInfo, "exceed max file size,stor\n");
      mode = quarry::kFtpStore;
    } else if (limit_mode == quarry::kFtpLimitStop) {
      ftp_log(kLogInfo, "exceed max file size,stop\n");
      char quit_reply[quarry::kFtpReplySize];
      ftp_command(conn, "QUIT", nullptr, quit_reply, sizeof(quit_reply), kClosing, 0);
      return DL_ERR_MAX_SIZE;
    } else {
      ftp_log(kLogError, "unknow limit mode\n");
      return DL_ERR_FTP_REPLY;
    }
  } else if (forced != 0) {
    mode = forced;
  }
  if (mode == quarry::kFtpAppend) {
    ftp_log(kLogInfo, "FTP APPE\n");
    ret = ftp_command(conn, "APPE", remote, reply, quarry::kFtpReplySize, 0, 0);
  } else if (mode == quarry::kFtpStore) {
    ftp_log(kLogInfo, "FTP STOR\n");
    ret = ftp_command(conn, "STOR", remote, reply, quarry::kFtpReplySize, 0, 0);
  } else {
    ftp_log(kLogError, "Unknow post mode\n");
    return DL_ERR_FTP_REPLY;
  }
  if (ret == kOpeningData || ret == kTransferStarting) {
    ftp_log(quarry::kLogNotice, "Post open success\n");
    return 0;
  }
  ftp_log(kLogError, "Open data transfer conn err\n");
  return ret;
}

// What the upload's open step needs of dl_ftp_send_open's arguments.
struct SendRequest {
  const char *local_path;
  const char *remote_name;
  int post_mode;
  int limit_mode;
  uint32_t max_size;
};

// The open's last steps on a live session, for the SendRequest |context|.
int start_request(dl_ftp_conn *conn, const void *context, char *reply) {
  const SendRequest *request = static_cast<const SendRequest *>(context);
  const char *remote = (request->remote_name != nullptr && request->remote_name[0] != '\0')
                           ? request->remote_name
                           : quarry::ftp_upload_name(request->local_path);
  if (remote[0] == '/') ++remote;
  return start_sending(conn, request->local_path, remote, request->post_mode,
                       request->limit_mode, request->max_size, reply);
}

int send_failed(dl_error *err, int code) {
  quarry::set_error(err, code);
  return -1;
}

// Sends all of |file| on the data connection. The byte count, or -1.
int64_t send_body(dl_ftp_conn *conn, FILE *file, int timeout_s, dl_error *err) {
  char piece[kSendPiece];
  int64_t count = 0;
  for (;;) {
    size_t n = fread(piece, 1, sizeof(piece), file);
    if (n == 0) {
      if (ferror(file) == 0) return count;
      ftp_log(kLogError, "read error! errno %d\n", errno);
      return send_failed(err, DL_ERR_SEND);
    }
    if (dl_select(conn->data, quarry::kWaitWritable, timeout_s) < 1) {
      ftp_log(kLogError, "dl_select error! errno %d\n", errno);
      return send_failed(err, DL_ERR_SEND);
    }
    if (ftp_send_all(conn->data, piece, static_cast<int>(n)) != 0) {
      ftp_log(kLogError, "read error! errno %d\n", errno);
      return send_failed(err, DL_ERR_SEND);
    }
    count += static_cast<int64_t>(n);
  }
}

}  // namespace

extern "C" {

DL_EXPORT int dl_ftp_send_open(dl_ftp_conn **out, const char *host, int port, const char *user,
                               const char *password, const char *local_path,
                               const char *remote_name, int post_mode, int limit_mode,
                               dl_error *err) {
  // The size limit the whole open works with, read once.
  const SendRequest request{local_path, remote_name, post_mode, limit_mode,
                            quarry::transfer_settings().max_file_size};
  return quarry::ftp_open(out, host, port, user, password, local_path, true, start_request,
                          &request, err);
}

DL_EXPORT int dl_ftp_send(dl_ftp_conn *conn, const char *local_path, dl_error *err) {
  if (err == nullptr || conn == nullptr || conn->magic != DL_FTP_MAGIC || conn->data == 0 ||
      conn->data_closed) {
    ftp_log(kLogError, "ftp read with invalid parameter\n");
    if (err != nullptr) quarry::set_error(err, DL_ERR_PARAM);
    return -1;
  }
  quarry::FilePtr file(local_path != nullptr ? fopen(local_path, "rb") : nullptr);
  if (!file) {
    ftp_log(kLogError, "Open file for send fail\n");
    return send_failed(err, DL_ERR_PARAM);
  }
  const int timeout_s = quarry::cfg_read(&dl_config::timeout_s);
  int64_t count = send_body(conn, file.get(), timeout_s, err);
  file.reset();
  // Closing the data connection ends the upload for the server; the
  // number stays in the handle, marked so that nothing closes it again.
  close(conn->data);
  conn->data_closed = true;
  if (count < 0) return -1;
  quarry::CharBuffer reply(static_cast<char *>(malloc(quarry::kFtpTransferReplySize)));
  if (!reply) return send_failed(err, DL_ERR_NOMEM);
  if (ftp_read_reply(conn, reply.get(), quarry::kFtpTransferReplySize, kTransferDone,
                     DL_ERR_SEND) != kTransferDone) {
    ftp_log(kLogError, "Transfer reply error\n");
    return send_failed(err, DL_ERR_SEND);
  }
  ftp_command(conn, "QUIT", nullptr, reply.get(), quarry::kFtpTransferReplySize, kClosing, 0);
  return static_cast<int>(count);
}

DL_EXPORT int dl_ftp_send_file(const char *host, int port, const char *user,
                               const char *password, const char *remote_name,
                               const char *local_path, int post_mode, int limit_mode,
                               dl_error *err) {
  dl_ftp_conn *raw = nullptr;
  if (dl_ftp_send_open(&raw, host, port, user, password, local_path, remote_name, post_mode,
                       limit_mode, err) != 0) {
    return -1;
  }
  quarry::FtpConnPtr conn(raw);
  int sent = dl_ftp_send(conn.get(), local_path, err);
  if (sent < 0) return -1;
  ftp_log(quarry::kLogNotice, "send: %d bytes\n", sent);
  return 0;
}

}  // extern "C"

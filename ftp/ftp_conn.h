// ftp/: the passive-mode FTP client. The handle, and what the files of the
// client share: log lines, error reports, the open steps both directions
// go through.
#ifndef QUARRY_FTP_FTP_CONN_H
#define QUARRY_FTP_FTP_CONN_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>

#include "core/core.h"

// The handle behind the opaque dl_ftp_conn of quarry.h.
struct dl_ftp_conn {
  uint32_t magic;     // DL_FTP_MAGIC while live
  int32_t control;    // control connection
  int32_t data;       // passive data connection; 0 until made
  uint32_t remaining; // download bytes still to come, as announced by SIZE
  char host[512];     // server host, for the extended-passive connect
  // dl_ftp_send closes the data socket but the number stays in |data|;
  // once set, nothing closes or uses that number again: it may belong to
  // another connection by then.
  bool data_closed;
  // Download bytes received and not yet handed out: a read takes them
  // from here, and the data socket is read in large pieces, so small
  // reads cost no system call. Allocated by the first read, freed by
  // dl_ftp_close.
  uint8_t *rx;
  uint32_t rx_start;  // first byte not handed out
  uint32_t rx_end;    // end of the received bytes
};

namespace quarry {

constexpr int kFtpDefaultPort = 21;
constexpr size_t kFtpHostRoom = sizeof(dl_ftp_conn::host);
constexpr int kFtpMaxPort = 65535;
// Reply buffers: the usual one, and the bigger one for the transfer reply
// of an upload.
constexpr int kFtpReplySize = 512;
constexpr int kFtpTransferReplySize = 8192;

// Post modes of an upload, and limit modes when it would grow too big.
constexpr int kFtpAppend = 1;
constexpr int kFtpStore = 2;
constexpr int kFtpLimitStore = 1;
constexpr int kFtpLimitStop = 2;

struct FreeDelete {
  void operator()(void *p) const { free(p); }
};
using CharBuffer = std::unique_ptr<char, FreeDelete>;

struct FileClose {
  void operator()(FILE *f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

// Closes and frees a handle on every path unless released (dl_ftp_close).
struct FtpClose {
  void operator()(dl_ftp_conn *conn) const { dl_ftp_close(conn); }
};
using FtpConnPtr = std::unique_ptr<dl_ftp_conn, FtpClose>;

// One log line of module FTP.
void ftp_log(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Fills |err| for a failure with |code|: the server's |reply| as the text
// for DL_ERR_FTP_REPLY, the code's own text otherwise.
void ftp_fail(dl_error *err, int code, const char *reply);

// The step an open takes once the session is up (SIZE and RETR, or the
// choice between APPE and STOR), given the open's |context|: 0, or the
// failure's code with |reply| as ftp_fail reports it.
using FtpStartStep = int (*)(dl_ftp_conn *conn, const void *context, char *reply);

// Both open functions: checks the arguments (|path| is the file the
// direction cannot do without), then connects, greets, logs in (with the
// anonymous fallback, announced only when |announce_fallback|), opens the
// passive data connection and takes |start|. 0 with |*out| the handle, or
// -1 with |err| filled and |*out| null.
int ftp_open(dl_ftp_conn **out, const char *host, int port, const char *user,
             const char *password, const char *path, bool announce_fallback,
             FtpStartStep start, const void *context, dl_error *err);

// The number after a reply's code ("213 1234"), saturated to 32 bits.
uint32_t ftp_reply_number(const char *reply);

// Passive-mode replies. The text between the first "(" and the ")" after
// it, copied into |out|; false when either is missing.
bool ftp_passive_text(const char *reply, char *out, size_t out_size);
// Extended passive "(|||port|)": the first decimal number of |text|.
bool ftp_parse_epsv(const char *text, int *port);
// Passive "(h1,h2,h3,h4,p1,p2)": the address with "," made "." into
// |host| and p1 * 256 + p2. False when a comma is missing.
bool ftp_parse_pasv(const char *text, char *host, size_t host_size, int *port);

// File names: the local name of a download without one (the part after
// the last "/", or the path without its first character when it has no
// "/"), and the remote name of an upload without one (the local path's
// last segment).
const char *ftp_download_name(const char *remote_path);
const char *ftp_upload_name(const char *local_path);

}  // namespace quarry

#endif  // QUARRY_FTP_FTP_CONN_H

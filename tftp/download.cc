// dl_tftp_recv_to_file: a whole download into a local file, bounded by the
// maximum file size; a failed download leaves no file behind.
#include <stdio.h>
#include <unistd.h>

#include "tftp/tftp.h"
#include "util/util.h"

namespace quarry {
namespace tftp {

namespace {

constexpr int kChunk = kWantedBlksize;

void log_total(int64_t total) {
  libq_log(kModTftp, kLogNotice, "recv: %d bytes\n", static_cast<int>(total));
}

// Copies the download into |file|. 0, or -1 with |err| filled.
int copy_to(dl_tftp_conn *conn, FILE *file, dl_error *err) {
  const int64_t max_size = cfg_read(&dl_config::max_file_size);
  uint8_t chunk[kChunk];
  int64_t total = 0;
  for (;;) {
    int n = dl_tftp_read(conn, chunk, kChunk, err);
    if (n < 0) return -1;
    if (n == 0) break;
    total += n;
    if (total > max_size) {
      log_error("exceed max size\n");
      err->code = DL_ERR_MAX_SIZE;
      snprintf(err->msg, kErrorTextRoom, "exceed max size %d", static_cast<int>(max_size));
      return -1;
    }
    if (fwrite(chunk, 1, static_cast<size_t>(n), file) != static_cast<size_t>(n)) {
      log_error("write file error\n");
      set_error(err, DL_ERR_FAIL);
      return -1;
    }
  }
  log_total(total);
  return 0;
}

}  // namespace

}  // namespace tftp
}  // namespace quarry

extern "C" {

DL_EXPORT int dl_tftp_recv_to_file(const char *host, int port, const char *remote_name,
                                   const char *local_path, dl_error *err) {
  namespace t = quarry::tftp;
  dl_tftp_conn *conn = nullptr;
  if (dl_tftp_open(&conn, host, port, remote_name, err) != 0) return -1;
  const char *path = local_path != nullptr ? local_path : remote_name;
  quarry::SaveStream out;
  if (!quarry::open_save_stream(path, &out)) {
    libq_log(quarry::kModTftp, quarry::kLogError, "Can't open %s\n", path);
    dl_tftp_close(conn);
    // unlink, not remove: a directory in the way is never taken away.
    unlink(path);
    return -1;
  }
  int rc = t::copy_to(conn, out.file.get(), err);
  dl_tftp_close(conn);
  if (rc == 0 && fclose(out.file.release()) != 0) {
    t::log_error("write file error\n");
    quarry::set_error(err, DL_ERR_FAIL);
    rc = -1;
  }
  if (rc != 0) {
    out.file.reset();
    unlink(path);
    return -1;
  }
  return 0;
}

}  // extern "C"

// Saving a response body to a local file, bounded by the maximum file
// size; a failed save never leaves a file behind.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/core.h"
#include "http/http_conn.h"
#include "http/open_flow.h"
#include "util/util.h"

namespace {

constexpr int kPiece = 512;
constexpr size_t kMessageRoom = 256;

using NamePtr = quarry::UniqueMalloc<char>;

void log_total(uint64_t total) {
  libq_log(quarry::kModHttp, quarry::kLogNotice, "recv : %d bytes\n", static_cast<int>(total));
}

// The file name a URL's path ends in, or null when the path names none.
NamePtr name_from_url(const char *url_text, dl_error *err) {
  int code = 0;
  dl_url *url = dl_url_parse(url_text, nullptr, nullptr, &code);
  if (url == nullptr) {
    quarry::set_error(err, code != 0 ? code : DL_ERR_URL);
    return nullptr;
  }
  const char *slash = url->path != nullptr ? strrchr(url->path, '/') : nullptr;
  if (slash == nullptr) {
    quarry::http_log_error("no file name in url\n");
    dl_url_free(url);
    quarry::set_error(err, DL_ERR_URL);
    return nullptr;
  }
  NamePtr name(strdup(slash + 1));
  dl_url_free(url);
  if (name == nullptr) {
    quarry::http_log_error("Out of memory\n");
    quarry::set_error(err, DL_ERR_NOMEM);
  }
  return name;
}

// Copies the body into |file|. Returns 0, or -1 with the code in |err|.
int copy_body(dl_http_conn *conn, FILE *file, dl_error *err) {
  const uint32_t max_size = quarry::cfg_read(&dl_config::max_file_size);
  char piece[kPiece];
  uint64_t total = 0;
  for (;;) {
    int n = dl_http_read(conn, piece, kPiece, err);
    if (n == 0) {
      log_total(total);
      return 0;
    }
    if (n < 0) {
      log_total(total);
      return -1;
    }
    total += static_cast<uint64_t>(n);
    if (total > max_size) {
      quarry::http_log_error("exceed max size\n");
      err->code = DL_ERR_MAX_SIZE;
      snprintf(err->msg, kMessageRoom, "exceed max size %d", static_cast<int>(max_size));
      log_total(total);
      return -1;
    }
    if (fwrite(piece, 1, static_cast<size_t>(n), file) != static_cast<size_t>(n)) {
      quarry::http_log_error("write file error\n");
      quarry::set_error(err, DL_ERR_FAIL);
      return -1;
    }
  }
}

// Saves the body of the open |conn| (which it closes) into |path|, or
// into the last path segment of |url_text| when |path| is null.
int save_body(dl_http_conn *conn, const char *url_text, const char *path, dl_error *err) {
  NamePtr from_url;
  if (path == nullptr) {
    from_url = name_from_url(url_text, err);
    if (from_url == nullptr) {
      dl_http_close(conn);
      return -1;
    }
    path = from_url.get();
  }
  quarry::SaveStream out;
  if (!quarry::open_save_stream(path, &out)) {
    // Nothing was created here, so nothing is removed: the name may be an
    // existing directory or someone else's file.
    libq_log(quarry::kModHttp, quarry::kLogError, "Can't open %s\n", path);
    dl_http_close(conn);
    return -1;
  }
  int ret = copy_body(conn, out.file.get(), err);
  dl_http_close(conn);
  if (ret == 0 && fclose(out.file.release()) != 0) {
    quarry::http_log_error("write file error\n");
    quarry::set_error(err, DL_ERR_FAIL);
    ret = -1;
  }
  if (ret != 0) {
    out.file.reset();
    remove(path);
    return -1;
  }
  return 0;
}

}  // namespace

extern "C" {

DL_EXPORT int dl_http_recv_to_file(const dl_http_param *param, const char *path, char *redirect_out,
                                   dl_error *err) {
  dl_http_conn *conn = nullptr;
  if (dl_http_open(&conn, param, redirect_out, err) != 0) return -1;
  return save_body(conn, param->url, path, err);
}

DL_EXPORT int dl_http_recv_to_file_ex(const dl_http_param_ex *param_ex, const char *path,
                                      char *redirect_out, dl_error *err) {
  dl_http_conn *conn = nullptr;
  if (dl_http_open_ex(&conn, param_ex, redirect_out, err) != 0) return -1;
  return save_body(conn, param_ex->param->url, path, err);
}

}  // extern "C"

// Fetching a ring-tone file: once per URL into "/tmp/<md5 of the URL>.wav",
// after checking that the server announced a small enough body and that
// the file's head is the G.711 mu-law format the phone plays.
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "core/core.h"
#include "http/http_conn.h"
#include "ring/ring.h"
#include "util/util.h"

namespace {

constexpr size_t kMd5Size = 16;
constexpr size_t kRedirectRoom = 512;
constexpr mode_t kCacheMode = 0666;  // fopen's, before the umask

struct ConnClose {
  void operator()(dl_http_conn *conn) const noexcept { dl_http_close(conn); }
};
using UniqueConn = std::unique_ptr<dl_http_conn, ConnClose>;

void log_ring(const char *text) { libq_log(quarry::kModHttp, quarry::kLogError, "%s", text); }

// The body length the server announced; an unknown one (no length, or a
// chunked body without one) counts as all ones.
uint32_t announced_length(const dl_http_conn *conn) {
  return (conn->flags & DL_HTTP_HAS_LENGTH) != 0 ? conn->remaining : UINT32_MAX;
}

// Creates the cache file. Exclusive and without following a link, so that
// nothing planted in the shared /tmp since the access check is written
// through.
quarry::UniqueFile create_cache_file(const char *path) {
  int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kCacheMode);
  if (fd < 0) return nullptr;
  FILE *file = fdopen(fd, "w+b");
  if (file == nullptr) close(fd);
  return quarry::UniqueFile(file);
}

// Most a body without a trustworthy length (chunked) may write: the
// download size limit, never below what a server may announce.
uint32_t body_limit() {
  uint32_t limit = quarry::cfg_read(&dl_config::max_file_size);
  return limit < quarry::kRingMaxAnnounced ? quarry::kRingMaxAnnounced : limit;
}

// Writes |first| (|first_len| bytes), then the rest of the body, into
// |file| and closes it. False after a failed read or write, or a body
// beyond body_limit(); what was written stays.
bool save_body(dl_http_conn *conn, quarry::UniqueFile file, const uint8_t *first,
               size_t first_len) {
  const uint64_t limit = body_limit();
  uint64_t total = first_len;
  bool ok = fwrite(first, 1, first_len, file.get()) == first_len;
  uint8_t piece[quarry::kRingPiece];
  dl_error err = {};
  while (ok) {
    int n = dl_http_read(conn, piece, quarry::kRingPiece, &err);
    if (n <= 0) {
      ok = n == 0;
      break;
    }
    total += static_cast<uint64_t>(n);
    ok = total <= limit &&
         fwrite(piece, 1, static_cast<size_t>(n), file.get()) == static_cast<size_t>(n);
  }
  return fclose(file.release()) == 0 && ok;
}

}  // namespace

namespace quarry {

bool ring_cache_path(const char *url, char *path) {
  uint8_t md[EVP_MAX_MD_SIZE];
  unsigned int md_len = 0;
  if (EVP_Digest(url, strlen(url), md, &md_len, EVP_md5(), nullptr) != 1 || md_len != kMd5Size) {
    return false;
  }
  char hex[2 * kMd5Size + 1];
  for (size_t i = 0; i < kMd5Size; ++i) snprintf(hex + 2 * i, sizeof(hex) - 2 * i, "%02x", md[i]);
  snprintf(path, kRingPathRoom, "/tmp/%s.wav", hex);
  return true;
}

int ring_fetch(const char *url, char *path_out, size_t path_len) {
  char path[kRingPathRoom];
  if (!ring_cache_path(url, path)) {
    log_ring("MD5 error\n");
    return -1;
  }
  if (access(path, F_OK) == 0) {
    copy_text_field(path_out, path, path_len);
    return 1;
  }

  dl_http_param param = {};
  param.url = const_cast<char *>(url);
  char redirect[kRedirectRoom] = "";
  dl_error err = {};
  dl_http_conn *opened = nullptr;
  if (dl_http_open(&opened, &param, redirect, &err) != 0) {
    libq_log(kModHttp, kLogError, "http open error, code:%d, msg:%s\n", err.code, err.msg);
    return -1;
  }
  UniqueConn conn(opened);
  if (announced_length(conn.get()) > kRingMaxAnnounced) {
    conn.reset();
    log_ring("File size exceeded\n");
    return -1;
  }
  uint8_t head[kRingPiece];
  int got = dl_http_read(conn.get(), head, kRingPiece, &err);
  if (got < 0) {
    log_ring("read error\n");
    return -1;
  }
  if (!ring_wave_head_ok(head, static_cast<size_t>(got))) {
    log_ring("Wrong Wave Format\n");
    return -1;
  }
  UniqueFile file = create_cache_file(path);
  if (!file) {
    libq_log(kModHttp, kLogError, "can't open file:%s\n", path);
    return -1;
  }
  if (!save_body(conn.get(), std::move(file), head, static_cast<size_t>(got))) {
    log_ring("Down load Error\n");
    return -1;
  }
  copy_text_field(path_out, path, path_len);
  return 0;
}

}  // namespace quarry

// libFuzzer target for the FTP reply reader: the input is what a server
// says on the control connection, written into a socket pair whose far
// end is then closed; replies are read until the reader fails, as a
// client would read them one command after another. The first byte picks
// the reply buffer's size.
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ftp/ftp_conn.h"

namespace {

// Well inside a socket pair's buffer, so that one write takes it all.
constexpr size_t kMaxInput = 32768;
constexpr int kReplySizes[] = {16, 256, 512, 8192};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  dl_config_init();
  libq_log_set(0, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
  int reply_len = kReplySizes[data[0] % (sizeof(kReplySizes) / sizeof(kReplySizes[0]))];
  if (size > 1 && write(fds[1], data + 1, size - 1) != static_cast<ssize_t>(size - 1)) {
    close(fds[0]);
    close(fds[1]);
    return 0;
  }
  close(fds[1]);
  dl_ftp_conn conn = {};
  conn.magic = DL_FTP_MAGIC;
  conn.control = fds[0];
  char reply[8192];
  // Every reply consumes at least one byte, so this ends.
  while (ftp_read_reply(&conn, reply, reply_len, 0, 0) >= 0) {
  }
  close(fds[0]);
  return 0;
}

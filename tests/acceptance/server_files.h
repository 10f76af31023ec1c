// Files on the real servers' side for the acceptance suites: binary test
// content, fresh remote names, and reading an uploaded file once the server
// has finished writing it.
#ifndef QUARRY_TESTS_ACCEPTANCE_SERVER_FILES_H
#define QUARRY_TESTS_ACCEPTANCE_SERVER_FILES_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "tests/support/log_capture.h"

namespace acceptance {

// |n| bytes of every value, NULs and CR/LF included, different per |seed|.
inline std::string binary_content(size_t n, uint32_t seed) {
  std::string s(n, '\0');
  uint32_t x = seed * 2654435761u + 1u;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>(x >> 24);
  }
  return s;
}

// A remote file name no other test or run uses.
inline std::string fresh_name(const std::string &prefix) {
  static int counter = 0;
  return prefix + "_" + std::to_string(getpid()) + "_" + std::to_string(++counter) + ".bin";
}

namespace server_files_detail {
constexpr int kSettleMs = 10000;  // the slowest server gives up after 5 s
constexpr int kSettleStepMs = 20;

inline bool write_locked(int fd) {
  struct flock lk {};
  lk.l_type = F_RDLCK;
  lk.l_whence = SEEK_SET;
  return fcntl(fd, F_GETLK, &lk) == 0 && lk.l_type != F_UNLCK;
}
}  // namespace server_files_detail

// The content of |path| once it holds |size| bytes and no server process
// keeps it write-locked any more, or what it holds after the bounded wait.
// A server may acknowledge the last block before writing it, or keep
// buffered data until it closes the file.
inline std::string settled_content(const std::string &path, size_t size) {
  using namespace server_files_detail;
  for (int waited = 0; waited < kSettleMs; waited += kSettleStepMs) {
    int fd = open(path.c_str(), O_RDONLY);
    if (fd >= 0) {
      struct stat st {};
      bool done =
          fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) == size && !write_locked(fd);
      close(fd);
      if (done) break;
    }
    timespec pause{0, kSettleStepMs * 1000000L};
    nanosleep(&pause, nullptr);
  }
  return quarry_test::file_exists(path) ? quarry_test::read_file(path) : std::string();
}

// Fetches |url| through the front door into |local|; its content, or
// "<failed>" with the code in |err|.
inline std::string door_fetch(const std::string &url, const std::string &local, dl_error *err) {
  dl_request req{};
  req.url = const_cast<char *>(url.c_str());
  if (dl_download(&req, local.c_str(), nullptr, err) != 0) return "<failed>";
  return quarry_test::read_file(local);
}

// Names parameterised cases after the server they run against.
struct ServerName {
  template <typename Server>
  std::string operator()(const ::testing::TestParamInfo<Server> &param) const {
    return param.param.name;
  }
};

}  // namespace acceptance

#endif  // QUARRY_TESTS_ACCEPTANCE_SERVER_FILES_H

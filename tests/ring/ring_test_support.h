// Helpers of the ring-tone tests: WAV files as bytes, alert URLs no other
// run shares, and the removal of the cache files a test made.
#ifndef QUARRY_TESTS_RING_RING_TEST_SUPPORT_H
#define QUARRY_TESTS_RING_RING_TEST_SUPPORT_H

#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ring/ring.h"

namespace quarry_ring_test {

inline std::string le32(uint32_t v) {
  return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 24)};
}
inline std::string le16(uint16_t v) {
  return std::string{static_cast<char>(v), static_cast<char>(v >> 8)};
}

// A whole WAV file of |total| bytes (at least 46): |tag| ("RIFF" or
// "RIFX"), an fmt chunk of |fmt_size| bytes for |format| (7 mu-law, 1
// PCM), mono 8 kHz with one byte per sample, and a data chunk of samples.
inline std::string wav_file(size_t total, const std::string &tag = "RIFF",
                            uint32_t fmt_size = 18, uint16_t format = 7) {
  std::string fmt = le16(format) + le16(1) + le32(8000) + le32(8000) + le16(1) + le16(8);
  fmt.resize(fmt_size, '\0');  // 18: cbSize 0 after the 16 common bytes
  std::string head = tag + le32(static_cast<uint32_t>(total - 8)) + "WAVE" + "fmt " +
                     le32(fmt_size) + fmt;
  const size_t data = total - head.size() - 8;
  std::string file = head + "data" + le32(static_cast<uint32_t>(data));
  for (size_t i = 0; i < data; ++i) file.push_back(static_cast<char>(0x7f ^ (i & 0x3f)));
  return file;
}

// A path no earlier run or other test used: process, clock and a count.
inline std::string unique_path(const std::string &stem) {
  static unsigned counter = 0;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return "/" + stem + "-" + std::to_string(getpid()) + "-" + std::to_string(now.tv_sec) + "-" +
         std::to_string(now.tv_nsec) + "-" + std::to_string(++counter) + ".wav";
}

inline std::string cache_path(const std::string &url) {
  char path[quarry::kRingPathRoom] = "";
  quarry::ring_cache_path(url.c_str(), path);
  return path;
}

// Remembers the URLs a test uses and removes their cache files, before
// (stale ones) and after the test.
class CacheFiles {
 public:
  ~CacheFiles() {
    for (const std::string &url : urls_) unlink(cache_path(url).c_str());
  }
  std::string add(const std::string &url) {
    unlink(cache_path(url).c_str());
    urls_.push_back(url);
    return urls_.back();
  }

 private:
  std::vector<std::string> urls_;
};

}  // namespace quarry_ring_test

#endif  // QUARRY_TESTS_RING_RING_TEST_SUPPORT_H

// util/: helpers for local files (size, time, directory test, copy, MD5),
// the phone's configuration tool, small string helpers, base64 and the
// printf-style formatters. The C entry points are declared in quarry.h and
// quarry_internal.h; this header adds the C++ pieces other folders share.
#ifndef QUARRY_UTIL_UTIL_H
#define QUARRY_UTIL_UTIL_H

#include <stdio.h>
#include <stdlib.h>

#include <memory>

namespace quarry {

// Owns a FILE opened with fopen.
struct FileCloser {
  void operator()(FILE *f) const noexcept { fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// Owns a stream opened with popen.
struct PipeCloser {
  void operator()(FILE *f) const noexcept { pclose(f); }
};
using UniquePipe = std::unique_ptr<FILE, PipeCloser>;

// Owns a heap block from malloc.
struct FreeDeleter {
  void operator()(void *p) const noexcept { free(p); }
};
template <typename T>
using UniqueMalloc = std::unique_ptr<T, FreeDeleter>;

// A downloaded file being saved. Pieces of 512 bytes reach it; its
// stream buffer gathers them so that a large file costs few writes.
constexpr size_t kSaveStreamBuffer = 32768;
struct SaveStream {
  UniqueMalloc<char> buffer;  // declared first: outlives the stream
  UniqueFile file;
};

// Opens |path| with fopen "wb" into |out|, with the larger buffer when
// the memory for it is there (the stream's own small one otherwise).
// Returns false, with |out->file| null, when fopen fails.
inline bool open_save_stream(const char *path, SaveStream *out) {
  out->buffer.reset(static_cast<char *>(malloc(kSaveStreamBuffer)));
  out->file.reset(fopen(path, "wb"));
  if (!out->file) return false;
  if (out->buffer) setvbuf(out->file.get(), out->buffer.get(), _IOFBF, kSaveStreamBuffer);
  return true;
}

// Runs "<tool> <arg1> <arg2>" through the shell and reads at most one line
// of its output into |buf| (room |n|), as dl_get_str_cmd does for the
// configuration tool. Returns 0, or -1 when the command cannot be started
// or an argument is unusable.
int run_tool_line(const char *tool, const char *arg1, const char *arg2, char *buf, int n);

}  // namespace quarry

#endif  // QUARRY_UTIL_UTIL_H

// File and encoding helpers: base64 carries credentials and certificate
// data, the MD5 of a file names ring tones in their cache and checks
// downloads, and copies move downloaded files into place.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace {

constexpr int64_t kKiB = 1024;
constexpr int64_t kMiB = 1024 * kKiB;
// 32 hexadecimal digits and their terminator.
constexpr size_t kMd5HexRoom = 33;
constexpr size_t kMd5HexLen = 32;
// Small inputs are taken in turn from different ones adding up to this
// much: one input run again and again lets the branch predictor learn it,
// and the decoder's table look-up then looks twice as fast as it is.
constexpr size_t kDistinctInputBytes = 64 * 1024;

struct FreeDeleter {
  void operator()(void *block) const { free(block); }
};
using UniqueText = std::unique_ptr<char, FreeDeleter>;

// Makes the scratch file |name| of |size| bytes unless an earlier run of
// the same benchmark already did. Returns its path, or "" on failure.
std::string pattern_file(const char *name, int64_t size) {
  std::string path = quarry_bench::scratch_path(name);
  if (dl_get_file_size(path.c_str()) == size) return path;
  return quarry_bench::write_pattern_file(path, static_cast<size_t>(size)) ? path : std::string();
}

// Distinct inputs of |size| bytes for the base64 benchmarks: at least one,
// as many as fit in kDistinctInputBytes.
std::vector<std::vector<unsigned char>> distinct_inputs(size_t size) {
  size_t count = size < kDistinctInputBytes ? kDistinctInputBytes / size : 1;
  std::vector<std::vector<unsigned char>> inputs;
  for (size_t i = 0; i < count; ++i) {
    inputs.push_back(quarry_bench::pattern_bytes(size, static_cast<uint32_t>(i)));
  }
  return inputs;
}

void BM_Base64Encode(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  std::vector<std::vector<unsigned char>> inputs = distinct_inputs(size);
  size_t next = 0;
  for (auto _ : state) {
    char *out = nullptr;
    size_t len = Curl_base64_encode(inputs[next].data(), size, &out);
    benchmark::DoNotOptimize(out);
    free(out);
    if (len == 0) {
      state.SkipWithError("Curl_base64_encode failed");
      break;
    }
    if (++next == inputs.size()) next = 0;
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Encode)->Arg(kKiB)->Arg(64 * kKiB);

// Throughput counts the decoded bytes, so that it compares with encoding.
void BM_Base64Decode(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  std::vector<UniqueText> texts;
  for (const std::vector<unsigned char> &input : distinct_inputs(size)) {
    char *text = nullptr;
    Curl_base64_encode(input.data(), size, &text);
    if (text == nullptr) {
      state.SkipWithError("Curl_base64_encode failed");
      return;
    }
    texts.emplace_back(text);
  }
  size_t next = 0;
  for (auto _ : state) {
    unsigned char *out = nullptr;
    size_t len = Curl_base64_decode(texts[next].get(), &out);
    benchmark::DoNotOptimize(out);
    free(out);
    if (len != size) {
      state.SkipWithError("Curl_base64_decode gave another length");
      break;
    }
    if (++next == texts.size()) next = 0;
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Decode)->Arg(kKiB)->Arg(64 * kKiB);

// The file is read from the page cache after the first round: this is the
// cost of reading and digesting, not of the storage.
void BM_FileMd5(benchmark::State &state) {
  std::string name = "md5_" + std::to_string(state.range(0)) + ".bin";
  std::string path = pattern_file(name.c_str(), state.range(0));
  if (path.empty()) {
    state.SkipWithError("cannot write the input file");
    return;
  }
  for (auto _ : state) {
    char hex[kMd5HexRoom];
    if (dl_get_file_md5(path.c_str(), hex) != 0 || strlen(hex) != kMd5HexLen) {
      state.SkipWithError("dl_get_file_md5 failed");
      break;
    }
    benchmark::DoNotOptimize(hex);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FileMd5)
    ->Arg(kMiB)
    ->Arg(8 * kMiB)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Each round copies into a new file, as a download is moved into place; the
// old copy is removed outside the timing. (Rewriting one file in place
// would time the file system instead: ext4 starts write-back on the close
// of a file that was truncated and written again.)
void BM_CopyFile(benchmark::State &state) {
  std::string name = "copy_src_" + std::to_string(state.range(0)) + ".bin";
  std::string src = pattern_file(name.c_str(), state.range(0));
  std::string dst = quarry_bench::scratch_path("copy_dst.bin");
  if (src.empty()) {
    state.SkipWithError("cannot write the input file");
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    unlink(dst.c_str());
    state.ResumeTiming();
    if (dl_copy_file(src.c_str(), dst.c_str()) != 0) {
      state.SkipWithError("dl_copy_file failed");
      break;
    }
  }
  if (dl_get_file_size(dst.c_str()) != state.range(0)) {
    state.SkipWithError("the copy has another size");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CopyFile)
    ->Arg(kMiB)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

// bench/: what every benchmark file shares: the library's set-up for the
// whole program, a scratch directory with pattern files, the heap
// allocation check and the close of loopback connections. Loopback peers
// come from the test kit (tests/peer/). A benchmark file of a new area
// includes this header and is added to QUARRY_BENCH_SOURCES in
// bench/CMakeLists.txt.
#ifndef QUARRY_BENCH_BENCH_SUPPORT_H
#define QUARRY_BENCH_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace quarry_bench {

// Brings the library up for the whole program (settings, IPv6 allowed,
// logging with no output) and makes the scratch directory. Returns false
// with a message on standard error when that fails.
bool setup();

// Tears down what setup made, scratch directory included.
void teardown();

// Logging as setup leaves it: thresholds 4, no output.
void log_to_nowhere();

// A path named |name| in the scratch directory.
std::string scratch_path(const char *name);

// |size| bytes of a fixed pseudo-random pattern: the same on every run for
// the same |seed|, and not compressible into a trivial case for the code
// under test.
std::vector<unsigned char> pattern_bytes(size_t size, uint32_t seed = 0);

// Writes pattern_bytes(|size|) to |path|. Returns false on failure.
bool write_pattern_file(const std::string &path, size_t size);

// Counts the heap allocations made while it lives.
class AllocScope {
 public:
  AllocScope();
  ~AllocScope();
  AllocScope(const AllocScope &) = delete;
  AllocScope &operator=(const AllocScope &) = delete;

  // Allocations since construction.
  uint64_t count() const;

 private:
  uint64_t start_;
};

// Reports the allocations per iteration of |scope| as the counter "allocs"
// and fails the benchmark when there was any: for paths that must not
// allocate. A sanitizer build cannot count; the label says so there.
void require_no_allocations(benchmark::State &state, const AllocScope &scope);

// Closes |fd| with a reset instead of the orderly close: the connection
// leaves no TIME_WAIT entry behind, so that thousands of connects in a row
// do not run out of local ports.
void close_with_reset(int fd);

// An empty function with libq_log's signature, in its own file so that the
// call is made: what any logging call costs at least.
int empty_log(unsigned module, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace quarry_bench

#endif  // QUARRY_BENCH_BENCH_SUPPORT_H

// Shared set-up of the benchmark program.
#include "bench/bench_support.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "bench/alloc_count.h"
#include "quarry.h"
#include "quarry_internal.h"

namespace quarry_bench {
namespace {

// Logging type with no output: lines that pass the thresholds are dropped.
constexpr int kLogNoOutput = 0;
constexpr int kOpenFdsForRemoval = 16;

std::string g_scratch_dir;

int remove_entry(const char *path, const struct stat *, int, FTW *) { return remove(path); }

struct FileClose {
  void operator()(FILE *file) const { fclose(file); }
};

// Proves that the counter sees allocations, the program's own and those libc
// makes inside its functions, before any benchmark relies on a count of 0.
bool alloc_counter_works() {
  if (quarry_bench_alloc_counting() == 0) return true;
  AllocScope scope;
  void *block = malloc(1);
  benchmark::DoNotOptimize(block);
  free(block);
  char *copy = strdup("x");
  benchmark::DoNotOptimize(copy);
  free(copy);
  return scope.count() == 2;
}

}  // namespace

bool setup() {
  if (!alloc_counter_works()) {
    fprintf(stderr, "quarry_bench: the heap allocation counter does not count\n");
    return false;
  }
  dl_config_init();
  uint32_t ipv6 = 1;
  if (dl_set_option(DL_OPT_IPV6_ENABLE, &ipv6) != 0) {
    fprintf(stderr, "quarry_bench: cannot enable IPv6 addresses\n");
    return false;
  }
  log_to_nowhere();

  const char *tmp = getenv("TMPDIR");
  std::string templ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                      "/quarry_bench.XXXXXX";
  if (mkdtemp(&templ[0]) == nullptr) {
    fprintf(stderr, "quarry_bench: cannot make a scratch directory from %s\n", templ.c_str());
    return false;
  }
  g_scratch_dir = templ;
  return true;
}

void teardown() {
  dl_exit();
  libq_log_exit();
  if (!g_scratch_dir.empty()) {
    nftw(g_scratch_dir.c_str(), remove_entry, kOpenFdsForRemoval, FTW_DEPTH | FTW_PHYS);
  }
}

void log_to_nowhere() { dl_log_new_init(kLogNoOutput, 0, nullptr); }

std::string scratch_path(const char *name) { return g_scratch_dir + "/" + name; }

std::vector<unsigned char> pattern_bytes(size_t size, uint32_t seed) {
  std::vector<unsigned char> bytes(size);
  // xorshift32: cheap, fixed and without short repeats. Its state must not
  // be 0.
  uint32_t x = 2463534242u ^ seed;
  if (x == 0) x = 1;
  for (unsigned char &byte : bytes) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    byte = static_cast<unsigned char>(x);
  }
  return bytes;
}

bool write_pattern_file(const std::string &path, size_t size) {
  std::unique_ptr<FILE, FileClose> file(fopen(path.c_str(), "wb"));
  if (!file) return false;
  std::vector<unsigned char> bytes = pattern_bytes(size);
  return fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
}

AllocScope::AllocScope() : start_(quarry_bench_alloc_count()) { quarry_bench_alloc_track(1); }

AllocScope::~AllocScope() { quarry_bench_alloc_track(0); }

uint64_t AllocScope::count() const { return quarry_bench_alloc_count() - start_; }

void require_no_allocations(benchmark::State &state, const AllocScope &scope) {
  if (quarry_bench_alloc_counting() == 0) {
    state.SetLabel("allocations not counted in a sanitizer build");
    return;
  }
  uint64_t allocations = scope.count();
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
  if (allocations != 0) state.SkipWithError("the path allocated heap memory");
}

void close_with_reset(int fd) {
  linger abort_close = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort_close, sizeof(abort_close));
  close(fd);
}

int empty_log(unsigned module, int level, const char *fmt, ...) {
  (void)module;
  (void)level;
  (void)fmt;
  return 0;
}

}  // namespace quarry_bench

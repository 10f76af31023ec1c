// Logging: a line below its module's threshold must cost about one
// comparison, a written line about one write call, and no line may touch
// the heap.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "bench/bench_support.h"
#include "core/core.h"

namespace {

using quarry::kLogDebug;
using quarry::kLogError;
using quarry::kModCommon;
using quarry_bench::AllocScope;
using quarry_bench::require_no_allocations;

constexpr char kTag[] = "BNCH";
constexpr int kWithTime = 1;
// A log file is emptied after this many lines so that a run stays small.
constexpr int64_t kLinesPerFile = 1 << 14;
// The longest line the engine writes; longer messages are cut to it.
constexpr off_t kLineMax = 382;
constexpr size_t kLongMessage = 1000;

// Lines as the connect code writes them.
constexpr char kConnectingFormat[] = "Connecting %s:%d\n";
constexpr char kConnectFailedFormat[] = "Connect Failed! ret %d, errno %d timeout %d error %d\n";
constexpr char kHost[] = "prov.example.com";
constexpr int kPort = 443;
constexpr int kConnectRet = -1;
constexpr int kErrno = 111;
constexpr int kTimeout = 1;

// Sends the log to a file of the scratch directory while it lives.
class FileLog {
 public:
  FileLog(const char *name, int flags) : path_(quarry_bench::scratch_path(name)) {
    libq_log_init(kTag, DL_LOG_TYPE_FILE, flags, path_.c_str());
    empty();
  }
  ~FileLog() { quarry_bench::log_to_nowhere(); }
  FileLog(const FileLog &) = delete;
  FileLog &operator=(const FileLog &) = delete;

  bool empty() const { return truncate(path_.c_str(), 0) == 0; }

  off_t size() const {
    struct stat st;
    return stat(path_.c_str(), &st) == 0 ? st.st_size : -1;
  }

  // Empties the file, outside the timing, once it holds kLinesPerFile lines.
  void rotate(benchmark::State &state, int64_t *lines) const {
    if (++*lines < kLinesPerFile) return;
    state.PauseTiming();
    empty();
    *lines = 0;
    state.ResumeTiming();
  }

 private:
  std::string path_;
};

void BM_LogBaselineEmptyCall(benchmark::State &state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(quarry_bench::empty_log(kModCommon, kLogDebug, kConnectingFormat,
                                                     kHost, kPort));
  }
}
BENCHMARK(BM_LogBaselineEmptyCall);

void BM_LogFiltered(benchmark::State &state) {
  FileLog log("filtered.log", 0);
  AllocScope allocs;
  for (auto _ : state) {
    benchmark::DoNotOptimize(libq_log(kModCommon, kLogDebug, kConnectingFormat, kHost, kPort));
  }
  require_no_allocations(state, allocs);
  if (log.size() != 0) state.SkipWithError("a line below the threshold was written");
}
BENCHMARK(BM_LogFiltered);

// One write of |range(0)| bytes to an append-only file: the floor of a
// written line of that length.
void BM_LogBaselineWrite(benchmark::State &state) {
  std::string path = quarry_bench::scratch_path("baseline.log");
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) {
    state.SkipWithError("cannot open the baseline file");
    return;
  }
  std::string line(static_cast<size_t>(state.range(0)), 'x');
  int64_t lines = 0;
  for (auto _ : state) {
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      state.SkipWithError("write failed");
      break;
    }
    if (++lines < kLinesPerFile) continue;
    state.PauseTiming();
    bool emptied = ftruncate(fd, 0) == 0;
    lines = 0;
    state.ResumeTiming();
    if (!emptied) {
      state.SkipWithError("cannot empty the baseline file");
      break;
    }
  }
  close(fd);
}
BENCHMARK(BM_LogBaselineWrite)->Arg(80)->Arg(kLineMax);

// A written line as a failed connect leaves it; range(0) is the time-stamp
// flag.
void BM_LogFileLine(benchmark::State &state) {
  FileLog log("line.log", static_cast<int>(state.range(0)));
  AllocScope allocs;
  int64_t lines = 0;
  int written = 0;
  for (auto _ : state) {
    written = libq_log(kModCommon, kLogError, kConnectFailedFormat, kConnectRet, kErrno, kTimeout,
                       kErrno);
    if (written <= 0) {
      state.SkipWithError("the line was not written");
      break;
    }
    log.rotate(state, &lines);
  }
  require_no_allocations(state, allocs);
  state.counters["line_bytes"] = written;
}
BENCHMARK(BM_LogFileLine)->ArgName("time")->Arg(0)->Arg(kWithTime);

// A message longer than a line: formatted, cut to 382 characters, written.
void BM_LogCutLine(benchmark::State &state) {
  FileLog log("cut.log", 0);
  std::string message(kLongMessage, 'm');
  libq_log(kModCommon, kLogError, "%s", message.c_str());
  if (log.size() != kLineMax) {
    state.SkipWithError("a long line was not cut to 382 characters");
    return;
  }
  log.empty();
  AllocScope allocs;
  int64_t lines = 0;
  for (auto _ : state) {
    if (libq_log(kModCommon, kLogError, "%s", message.c_str()) != kLineMax) {
      state.SkipWithError("the cut line was not written whole");
      break;
    }
    log.rotate(state, &lines);
  }
  require_no_allocations(state, allocs);
}
BENCHMARK(BM_LogCutLine);

}  // namespace

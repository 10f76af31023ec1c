// quarry_bench: every benchmark of the library in one program. Takes the
// usual Google Benchmark flags (--benchmark_filter=..., and so on).
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/bench_support.h"

namespace {

// Each benchmark measures for at least this long unless the command line
// says otherwise: steady numbers for operations from nanoseconds to
// milliseconds, and the whole program well under a minute.
char kDefaultMinTime[] = "--benchmark_min_time=0.2";

}  // namespace

int main(int argc, char **argv) {
  // The default goes first so that a --benchmark_min_time given by the
  // caller, parsed later, wins.
  std::vector<char *> args(argv, argv + argc);
  args.insert(args.begin() + 1, kDefaultMinTime);
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);

  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  if (!quarry_bench::setup()) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  quarry_bench::teardown();
  return 0;
}

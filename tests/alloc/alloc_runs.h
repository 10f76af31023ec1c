// The loop every allocation-failure test runs: fail the 1st, 2nd, ...
// counted allocation of one operation until a run goes through without
// reaching the armed one. Each failed run must end with a negative code,
// leave no file behind and no descriptor open; a run whose failed
// allocation was tolerated must still produce the full result.
#ifndef QUARRY_TESTS_ALLOC_ALLOC_RUNS_H
#define QUARRY_TESTS_ALLOC_ALLOC_RUNS_H

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <functional>
#include <set>
#include <string>

#include "tests/ftp/ftp_peer.h"
#include "tests/support/alloc_fail.h"

namespace quarry_test {

// Plenty for any one operation; reaching it is a failure of its own.
constexpr long kMaxAllocRuns = 100000;
constexpr long kEveryUpTo = 200;
constexpr long kSpreadRuns = 100;

// Names in |path|, "." and ".." left out.
inline std::set<std::string> dir_entries(const std::string &path) {
  std::set<std::string> names;
  DIR *dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (dirent *e = readdir(dir)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  closedir(dir);
  return names;
}

struct AllocRuns {
  long failed = 0;     // runs that ended with a negative code
  long tolerated = 0;  // runs that went through despite the failure
  std::set<int> codes;
};

// One operation: runs once with the armed failure in force (the callback
// arms and disarms around the library call itself through |guarded|) and
// returns the library's result; |ok| checks the result of a run that
// succeeded; |clean| that nothing was left behind by a failed one.
struct AllocOp {
  std::string name;
  std::function<int(long n, bool *fired)> run;
  std::function<bool()> ok;
  std::function<bool()> clean;
};

// The test's log of the current run, shown when the run fails a check,
// and how to start it afresh before each run (both may be left empty).
inline std::function<std::string()> &alloc_log_text() {
  static std::function<std::string()> text;
  return text;
}
inline std::function<void()> &alloc_log_clear() {
  static std::function<void()> clear;
  return clear;
}

inline std::string log_for_failure() { return alloc_log_text() ? alloc_log_text()() : ""; }

inline AllocRuns run_alloc_failures(const AllocOp &op) {
  AllocRuns out;
  // A first run without a failure lets OpenSSL make what it makes only
  // once per process: a failure there would stay for every later run.
  bool warm = false;
  op.run(0, &warm);
  const long total = alloc_fail_count();
  // Every allocation up to kEveryUpTo; past it, evenly spread runs so
  // that an operation of thousands (OpenSSL's) stays quick.
  const long step = total > kEveryUpTo ? (total - kEveryUpTo) / kSpreadRuns + 1 : 1;
  for (long n = 1; n <= kMaxAllocRuns; n += n < kEveryUpTo ? 1 : step) {
    const int fds = open_descriptors();
    if (alloc_log_clear()) alloc_log_clear()();
    bool fired = false;
    const int rc = op.run(n, &fired);
    EXPECT_EQ(open_descriptors(), fds) << op.name << ": descriptors after failing allocation " << n;
    if (!fired) {
      EXPECT_EQ(rc, 0) << op.name << ": the run without a failure\n" << log_for_failure();
      EXPECT_TRUE(op.ok()) << op.name << ": the run without a failure";
      printf(
          "alloc-failure %s: %ld allocations, %ld runs, %ld ended with a negative code (%s), %ld "
          "tolerated\n",
          op.name.c_str(), total, out.failed + out.tolerated, out.failed,
          [&] {
            std::string s;
            for (int c : out.codes) s += (s.empty() ? "" : " ") + std::to_string(c);
            return s;
          }()
              .c_str(),
          out.tolerated);
      return out;
    }
    if (rc < 0) {
      ++out.failed;
      out.codes.insert(rc);
      EXPECT_TRUE(op.clean()) << op.name << ": left something after failing allocation " << n
                              << "\n"
                              << log_for_failure();
    } else {
      ++out.tolerated;
      EXPECT_TRUE(op.ok()) << op.name << ": result " << rc << " after failing allocation " << n;
    }
    if (::testing::Test::HasFailure()) return out;
  }
  ADD_FAILURE() << op.name << ": never went through";
  return out;
}

// Runs |call| with allocation |n| of this thread armed to fail.
template <class Call>
int armed(long n, bool *fired, Call call) {
  alloc_fail_arm(n);
  int rc = call();
  *fired = alloc_fail_disarm();
  return rc;
}

}  // namespace quarry_test

#endif  // QUARRY_TESTS_ALLOC_ALLOC_RUNS_H

// One line of output of the phone's configuration tool.
#include <stdio.h>

#include "core/core.h"
#include "util/util.h"

namespace {

constexpr char kCfgToolPath[] = "/boot/bin/cfgserver";
// The command line has always been built in a 512-byte buffer; longer
// commands are cut.
constexpr size_t kCommandRoom = 512;

}  // namespace

namespace quarry {

int run_tool_line(const char *tool, const char *arg1, const char *arg2, char *buf, int n) {
  if (tool == nullptr || arg1 == nullptr || arg2 == nullptr || buf == nullptr || n <= 0) {
    libq_log(kModCommon, kLogError, "Invalid Param!\n");
    return -1;
  }
  char command[kCommandRoom];
  snprintf(command, sizeof(command), "%s %s %s", tool, arg1, arg2);
  UniquePipe pipe(popen(command, "r"));
  if (!pipe) {
    libq_log(kModCommon, kLogError, "popen error\n");
    return -1;
  }
  // When the tool prints nothing, fgets leaves |buf| as it was, which is
  // what callers rely on; that is no failure.
  char *line = fgets(buf, n, pipe.get());
  static_cast<void>(line);
  return 0;
}

}  // namespace quarry

extern "C" {

DL_EXPORT int dl_get_str_cmd(const char *arg1, const char *arg2, char *buf, int n) {
  return quarry::run_tool_line(kCfgToolPath, arg1, arg2, buf, n);
}

}  // extern "C"

// The exported logging set-up calls: thin shims over the engine.
#include "core/core.h"

namespace {

constexpr char kLibraryTag[] = "LIBQ";
constexpr unsigned kFlagSyslog = 1;
constexpr unsigned kFlagStdout = 2;
constexpr unsigned kFlagTime = 4;
constexpr int kNoOutput = 0;

// dl_set_log_level's coarse levels 0..3 and the threshold each stands for;
// anything above 3 means notice.
constexpr unsigned kLevelThresholds[] = {quarry::kLogDebug, quarry::kLogInfo, quarry::kLogWarning,
                                         quarry::kLogError};
constexpr unsigned kDefaultCoarseThreshold = quarry::kLogNotice;

}  // namespace

extern "C" {

DL_EXPORT int dl_log_init(unsigned flags) {
  int type = kNoOutput;
  if (flags & kFlagSyslog) {
    type = DL_LOG_TYPE_SYSLOG;
  } else if (flags & kFlagStdout) {
    type = DL_LOG_TYPE_STDOUT;
  }
  return libq_log_init(kLibraryTag, type, (flags & kFlagTime) ? 1 : 0, nullptr);
}

DL_EXPORT int dl_log_new_init(int type, int flags, const char *path) {
  return libq_log_init(kLibraryTag, type, flags, path);
}

DL_EXPORT int dl_log_open(int type, const char *path, unsigned level) {
  libq_log_set(quarry::kModAny, level);
  libq_log_open(static_cast<unsigned>(type), path);
  return 0;
}

DL_EXPORT int dl_set_log_module_level(unsigned module, unsigned level) {
  return libq_log_set(module, level);
}

DL_EXPORT int dl_set_log_level(unsigned n) {
  unsigned threshold = n < sizeof(kLevelThresholds) / sizeof(kLevelThresholds[0])
                           ? kLevelThresholds[n]
                           : kDefaultCoarseThreshold;
  int result = 0;
  for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) {
    result = libq_log_set(module, threshold);
  }
  return result;
}

DL_EXPORT dl_log_callback dl_set_log_callback(dl_log_callback cb) { return cb; }

DL_EXPORT void dl_set_log_cb_printf(dl_log_printf_callback cb) { (void)cb; }

}  // extern "C"

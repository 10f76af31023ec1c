// core/: the settings record and its locked reads, result codes and their
// texts, and the logging engine. Depends on nothing else of the library.
#ifndef QUARRY_CORE_CORE_H
#define QUARRY_CORE_CORE_H

#include <pthread.h>
#include <stddef.h>
#include <string.h>

#include "quarry.h"
#include "quarry_internal.h"

namespace quarry {

// Log modules: the first argument of libq_log.
enum LogModule : unsigned {
  kModAny = 0,
  kModMem = 1,
  kModCommon = 2,
  kModHttp = 3,
  kModTftp = 4,
  kModFtp = 5,
  kModDlnc = 6,
};

// Log levels, syslog's numbering.
enum LogLevel : int {
  kLogEmerg = 0,
  kLogAlert = 1,
  kLogCrit = 2,
  kLogError = 3,
  kLogWarning = 4,
  kLogNotice = 5,
  kLogInfo = 6,
  kLogDebug = 7,
};

// Room dl_error texts are written with: the report holds 256 bytes, the
// transfer code has always handed 252 to dl_get_error_string.
constexpr size_t kErrorTextRoom = 252;

// Holds a pthread mutex for one scope.
class MutexGuard {
 public:
  explicit MutexGuard(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexGuard() { pthread_mutex_unlock(mutex_); }
  MutexGuard(const MutexGuard &) = delete;
  MutexGuard &operator=(const MutexGuard &) = delete;

 private:
  pthread_mutex_t *mutex_;
};

// Holds g_dl_cfg.cfg_lock for one scope: copy settings out, then let go
// before doing any input or output.
class CfgLock : public MutexGuard {
 public:
  CfgLock() : MutexGuard(&g_dl_cfg.cfg_lock) {}
};

// Reads one number setting under cfg_lock.
template <typename T>
T cfg_read(T dl_config::*field) {
  CfgLock lock;
  return g_dl_cfg.*field;
}

// The settings a transfer starts with, copied under one hold of cfg_lock
// so that a change made meanwhile cannot mix old and new values.
struct TransferSettings {
  int timeout_s;
  int ipv6_enable;
  bool use_own_resolver;
  uint32_t max_file_size;
};
TransferSettings transfer_settings();

// Copies a text setting into |dst| (|dst_len| bytes, always terminated)
// under cfg_lock.
template <size_t N>
void cfg_read_text(char (dl_config::*field)[N], char *dst, size_t dst_len) {
  if (dst == nullptr || dst_len == 0) return;
  CfgLock lock;
  const char *src = g_dl_cfg.*field;
  size_t i = 0;
  for (; i + 1 < dst_len && i < N && src[i] != '\0'; ++i) dst[i] = src[i];
  dst[i] = '\0';
}

// strncpy's contract for fixed fields: at most |count| bytes copied, the
// rest zero-filled, no terminator when the text fills the field. Spelled
// out so that compilers do not flag the intended truncation.
inline void copy_text_field(char *dst, const char *src, size_t count) {
  size_t n = strnlen(src, count);
  memcpy(dst, src, n);
  memset(dst + n, 0, count - n);
}

// Fills |err| with |code| and the code's text; a null |err| is ignored.
void set_error(dl_error *err, int code);

}  // namespace quarry

#endif  // QUARRY_CORE_CORE_H

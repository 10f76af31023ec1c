// The logging engine: per-module thresholds and one output (system log
// socket, coloured standard output or an append-only file). A line is
// formatted into a fixed stack buffer and written with one call; nothing
// on this path allocates.
//
// Threads: transfers log from every caller's thread while the caller may
// change thresholds or the output, and a failed write reconnects the output
// from whichever thread saw it fail. Thresholds are read and written
// atomically; the output (descriptors, type, tag) is only touched under
// g_log_lock, which is held from formatting to the write, so that no line
// goes to a descriptor another thread has just closed and two racing
// reconnects cannot leave a socket behind.
#include <ctype.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "core/core.h"

using quarry::kLogWarning;

namespace {

constexpr int kTagLen = 4;
constexpr unsigned kDefaultThreshold = 4;
constexpr int kNoFd = -1;
// A line holds at most this many characters; the message is cut to fit.
constexpr size_t kLineMax = 382;
constexpr size_t kLineBuffer = 416;
constexpr char kSyslogPath[] = "/dev/log";
// Facility 16 (local use 0) in the priority field of a syslog datagram.
constexpr int kSyslogFacility = 128;
// ctime_r's text from the month through the seconds: "Nov 15 08:52:24".
constexpr size_t kCtimeStampOffset = 4;
constexpr size_t kCtimeStampLen = 15;

constexpr char kColourError[] = "\x1b[1;31m";
constexpr char kColourWarning[] = "\x1b[1;33m";
constexpr char kColourReset[] = "\x1b[0m";
constexpr size_t kColourLen = sizeof(kColourError) - 1;
constexpr size_t kResetLen = sizeof(kColourReset) - 1;

// Eight names so that the name matcher also meets the empty eighth one.
constexpr const char *kModuleNames[LIBQ_LOG_MODULES + 1] = {"DANY", "DMEM", "DCMN", "HTTP",
                                                            "TFTP", "FTP ", "DLNC", ""};

constexpr const char *kLevelLabels[] = {"<0+emerg >", "<1+alert >", "<2+crit  >", "<3+error >",
                                        "<4+warnin>", "<5+notice>", "<6+info  >", "<7+debug >",
                                        "<8+apykky>", "<9+anydbg>"};
constexpr int kLevelCount = sizeof(kLevelLabels) / sizeof(kLevelLabels[0]);
constexpr char kUnknownLevelLabel[] = "<?+unknow>";

struct LogState {
  char tag[kTagLen] = {'?', '?', '?', '?'};
  int output_type = DL_LOG_TYPE_SYSLOG;
  int log_fd = kNoFd;
  // A system log socket whose connect failed, kept for the next attempt:
  // while "/dev/log" is missing, each line then costs one connect rather
  // than a socket, a connect and a close.
  int spare_fd = kNoFd;
  int with_time = 0;
  unsigned char module_level[LIBQ_LOG_MODULES] = {4, 4, 4, 4, 4, 4, 4};
};

LogState g_log;
pthread_mutex_t g_log_lock = PTHREAD_MUTEX_INITIALIZER;

unsigned threshold_of(unsigned module) {
  return __atomic_load_n(&g_log.module_level[module], __ATOMIC_RELAXED);
}

void set_threshold(unsigned module, unsigned level) {
  __atomic_store_n(&g_log.module_level[module], static_cast<unsigned char>(level),
                   __ATOMIC_RELAXED);
}

void close_output() {
  if (g_log.log_fd > STDERR_FILENO) close(g_log.log_fd);
  g_log.log_fd = kNoFd;
}

void close_spare() {
  if (g_log.spare_fd != kNoFd) close(g_log.spare_fd);
  g_log.spare_fd = kNoFd;
}

int open_syslog_socket() {
  int fd = g_log.spare_fd;
  g_log.spare_fd = kNoFd;
  if (fd == kNoFd) fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return kNoFd;
  sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, kSyslogPath, sizeof(kSyslogPath));
  socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(kSyslogPath));
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0) {
    g_log.spare_fd = fd;
    return kNoFd;
  }
  return fd;
}

// Opens the current output type; a failure leaves log_fd closed so that the
// next line tries again.
void open_output(const char *path) {
  close_output();
  if (g_log.output_type != DL_LOG_TYPE_SYSLOG) close_spare();
  switch (g_log.output_type) {
    case DL_LOG_TYPE_STDOUT:
      g_log.log_fd = STDOUT_FILENO;
      break;
    case DL_LOG_TYPE_FILE:
      if (path != nullptr) {
        g_log.log_fd = open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0777);
      }
      break;
    case DL_LOG_TYPE_SYSLOG:
      g_log.log_fd = open_syslog_socket();
      break;
    default:
      break;
  }
}

void reset_thresholds(unsigned level) {
  for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) set_threshold(module, level);
}

size_t append(char *buf, size_t used, size_t cap, const char *text, size_t len) {
  if (used >= cap) return used;
  if (len > cap - used) len = cap - used;
  memcpy(buf + used, text, len);
  return used + len;
}

size_t append_fmt(char *buf, size_t used, size_t cap, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
size_t append_fmt(char *buf, size_t used, size_t cap, const char *fmt, ...) {
  if (used >= cap) return used;
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf + used, cap - used, fmt, ap);
  va_end(ap);
  if (n < 0) return used;
  size_t added = static_cast<size_t>(n);
  return used + (added < cap - used ? added : cap - used - 1);
}

// Gathers up to five lower-cased characters of |name|, skipping blanks.
void match_key(const char *name, char key[5]) {
  memset(key, 0, 5);
  int taken = 0;
  for (const char *p = name; *p != '\0' && taken < 5; ++p) {
    if (*p == ' ') continue;
    key[taken++] = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
  }
}

// libq_log_init's changes of the engine, under g_log_lock: closes the
// output, resets the thresholds, takes type, time stamps and tag, and opens
// the new output. Returns the time stamp flag.
int set_up_output(const char *tag, int type, int flags, const char *path) {
  close_output();
  reset_thresholds(kDefaultThreshold);
  g_log.output_type = type;
  g_log.with_time = flags & 1;
  // A short tag is padded with blanks; nothing past its end is read.
  bool ended = false;
  for (int i = 0; i < kTagLen; ++i) {
    if (tag == nullptr) {
      g_log.tag[i] = '?';
      continue;
    }
    ended = ended || tag[i] == '\0';
    g_log.tag[i] = ended ? ' ' : tag[i];
  }
  open_output(path);
  return g_log.with_time;
}

}  // namespace

extern "C" {

DL_EXPORT int libq_vlog(unsigned module, int level, const char *fmt, va_list ap) {
  if (module >= LIBQ_LOG_MODULES || fmt == nullptr) return -1;
  if (level > static_cast<int>(threshold_of(module))) return 0;
  quarry::MutexGuard lock(&g_log_lock);
  if (g_log.log_fd == kNoFd) {
    // The line is dropped; reconnecting now lets the next one through.
    open_output(nullptr);
    return -1;
  }

  // Room in front of the line for the colour code of standard output, and
  // behind it for the reset code, so that one write carries everything.
  char buf[kColourLen + kLineBuffer + kResetLen];
  char *line = buf + kColourLen;
  const size_t cap = kLineMax + 1;
  size_t used = 0;
  size_t tag_at = 0;

  if (g_log.output_type == DL_LOG_TYPE_SYSLOG) {
    used = append_fmt(line, used, cap, "<%d>", level | kSyslogFacility);
    time_t now = time(nullptr);
    char stamp[32];
    if (ctime_r(&now, stamp) != nullptr) {
      used = append(line, used, cap, stamp + kCtimeStampOffset, kCtimeStampLen);
    }
    used = append(line, used, cap, " ", 1);
  }
  tag_at = used;
  used = append(line, used, cap, g_log.tag, kTagLen);
  used = append_fmt(line, used, cap, "[%d]: ", static_cast<int>(getpid()));
  used = append(line, used, cap, kModuleNames[module], kTagLen);
  const char *label = (level >= 0 && level < kLevelCount) ? kLevelLabels[level] : kUnknownLevelLabel;
  used = append(line, used, cap, label, strlen(label));
  used = append(line, used, cap, " ", 1);
  if (g_log.with_time) {
    timeval tv;
    gettimeofday(&tv, nullptr);
    used = append_fmt(line, used, cap, "%03d.%03d.%03d:", static_cast<int>(tv.tv_sec % 1000),
                      static_cast<int>(tv.tv_usec / 1000), static_cast<int>(tv.tv_usec % 1000));
  }
  int message_len = vsnprintf(line + used, cap - used, fmt, ap);
  if (message_len > 0) {
    size_t full = used + static_cast<size_t>(message_len);
    used = full < kLineMax ? full : kLineMax;
  }

  if (g_log.output_type == DL_LOG_TYPE_STDOUT) {
    // Standard output leaves the tag out; the colour code is written over
    // the bytes just before what is kept.
    size_t start = kColourLen + tag_at + kTagLen;
    const char *colour = nullptr;
    if (level < kLogWarning) {
      colour = kColourError;
    } else if (level == kLogWarning) {
      colour = kColourWarning;
    }
    if (colour != nullptr) {
      start -= kColourLen;
      memcpy(buf + start, colour, kColourLen);
    }
    size_t end = kColourLen + used;
    memcpy(buf + end, kColourReset, kResetLen);
    end += kResetLen;
    return static_cast<int>(write(g_log.log_fd, buf + start, end - start));
  }

  ssize_t written = write(g_log.log_fd, line, used);
  if (written < 0) open_output(nullptr);
  return static_cast<int>(written);
}

}  // extern "C"

extern "C" {

DL_EXPORT int libq_log(unsigned module, int level, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int result = libq_vlog(module, level, fmt, ap);
  va_end(ap);
  return result;
}

DL_EXPORT int libq_log_init(const char *tag, int type, int flags, const char *path) {
  char tag_text[kTagLen + 1];
  int with_time;
  {
    quarry::MutexGuard lock(&g_log_lock);
    with_time = set_up_output(tag, type, flags, path);
    memcpy(tag_text, g_log.tag, kTagLen);
  }
  tag_text[kTagLen] = '\0';
  libq_log(quarry::kModAny, quarry::kLogEmerg, "%s log :type=%d,time=%d,E=%d,W=%d,N=%d,I=%d,D=%d\n",
           tag_text, type, with_time, quarry::kLogError, quarry::kLogWarning,
           quarry::kLogNotice, quarry::kLogInfo, quarry::kLogDebug);
  return 0;
}

DL_EXPORT int libq_log_open(unsigned type, const char *path) {
  bool known = type == DL_LOG_TYPE_SYSLOG || type == DL_LOG_TYPE_STDOUT || type == DL_LOG_TYPE_FILE;
  quarry::MutexGuard lock(&g_log_lock);
  if (known && static_cast<int>(type) != g_log.output_type) {
    close_output();
    g_log.output_type = static_cast<int>(type);
    open_output(path);
  }
  return 0;
}

DL_EXPORT int libq_log_exit(void) {
  quarry::MutexGuard lock(&g_log_lock);
  close_output();
  close_spare();
  reset_thresholds(kDefaultThreshold);
  g_log.output_type = DL_LOG_TYPE_SYSLOG;
  g_log.with_time = 0;
  return 0;
}

DL_EXPORT const char *libq_log_name(unsigned module) {
  return module < LIBQ_LOG_MODULES ? kModuleNames[module] : nullptr;
}

DL_EXPORT int libq_log_get(unsigned module) {
  return module < LIBQ_LOG_MODULES ? static_cast<int>(threshold_of(module)) : -1;
}

DL_EXPORT int libq_log_set(unsigned module, unsigned level) {
  const char *name = libq_log_name(module);
  libq_log(quarry::kModAny, quarry::kLogEmerg, "%s=%d\n", name != nullptr ? name : "(null)",
           static_cast<int>(level));
  if (module == quarry::kModAny) {
    reset_thresholds(level);
    return 0;
  }
  if (module >= LIBQ_LOG_MODULES) return -1;
  return __atomic_exchange_n(&g_log.module_level[module], static_cast<unsigned char>(level),
                             __ATOMIC_RELAXED);
}

DL_EXPORT int libq_log_set2(const char *name, unsigned level) {
  if (name == nullptr) return -1;
  char wanted[5];
  match_key(name, wanted);
  for (unsigned module = 0; module <= LIBQ_LOG_MODULES; ++module) {
    char have[5];
    match_key(kModuleNames[module], have);
    if (memcmp(have, wanted, sizeof(have)) == 0) return libq_log_set(module, level);
  }
  return -1;
}

}  // extern "C"

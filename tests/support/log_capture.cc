#include "tests/support/log_capture.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>

#include "quarry.h"
#include "quarry_internal.h"

namespace quarry_test {

namespace {

const char *level_label(int level) {
  static const char *const kLabels[] = {"<0+emerg >", "<1+alert >", "<2+crit  >", "<3+error >",
                                        "<4+warnin>", "<5+notice>", "<6+info  >", "<7+debug >",
                                        "<8+apykky>", "<9+anydbg>"};
  return (level >= 0 && level <= 9) ? kLabels[level] : "<?+unknow>";
}

}  // namespace

LogCapture::LogCapture(unsigned threshold) {
  char name[] = "/tmp/quarry-log-XXXXXX";
  int fd = mkstemp(name);
  if (fd >= 0) close(fd);
  path_ = name;
  dl_log_new_init(3, 0, path_.c_str());
  libq_log_set(0, threshold);
  clear();
}

LogCapture::~LogCapture() {
  libq_log_exit();
  unlink(path_.c_str());
}

std::string LogCapture::text() const { return read_file(path_); }

void LogCapture::clear() {
  // The engine appends, so truncating in place keeps its descriptor valid.
  if (truncate(path_.c_str(), 0) != 0) return;
}

std::string LogCapture::line(unsigned module, int level, const std::string &message) {
  std::ostringstream out;
  out << "LIBQ[" << getpid() << "]: " << libq_log_name(module) << level_label(level) << " "
      << message;
  return out.str();
}

int LogCapture::count(unsigned module, int level, const std::string &message) const {
  const std::string all = text();
  const std::string wanted = line(module, level, message);
  int n = 0;
  for (size_t at = all.find(wanted); at != std::string::npos; at = all.find(wanted, at + 1)) {
    // A match must start a line: at the beginning or right after a newline.
    if (at == 0 || all[at - 1] == '\n') ++n;
  }
  return n;
}

bool LogCapture::has(unsigned module, int level, const std::string &message) const {
  return count(module, level, message) > 0;
}

bool LogCapture::mentions(const std::string &fragment) const {
  return text().find(fragment) != std::string::npos;
}

TempDir::TempDir() {
  char name[] = "/tmp/quarry-test-XXXXXX";
  if (mkdtemp(name) != nullptr) path_ = name;
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  std::string command = "rm -rf '" + path_ + "'";
  if (system(command.c_str()) != 0) return;
}

std::string TempDir::write(const std::string &name, const std::string &content) const {
  std::string full = file(name);
  std::ofstream out(full, std::ios::binary);
  out << content;
  return full;
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool file_exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

void write_file(const std::string &path, const std::string &content) {
  FILE *f = fopen(path.c_str(), "wb");
  if (f == nullptr) {
    ADD_FAILURE() << "cannot write " << path;
    return;
  }
  if (fwrite(content.data(), 1, content.size(), f) != content.size()) {
    ADD_FAILURE() << "short write to " << path;
  }
  if (fclose(f) != 0) ADD_FAILURE() << "cannot close " << path;
}

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string out(n, '\0');
  for (char &c : out) c = static_cast<char>(gen() & 0xff);
  return out;
}

int open_descriptors() {
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int count = 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

}  // namespace quarry_test

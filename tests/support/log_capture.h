// Captures the library's log lines through the file output so that tests
// can assert them exactly.
#ifndef QUARRY_TESTS_SUPPORT_LOG_CAPTURE_H
#define QUARRY_TESTS_SUPPORT_LOG_CAPTURE_H

#include <string>

namespace quarry_test {

class LogCapture {
 public:
  // Sends every module's lines up to |threshold| to a fresh temporary file.
  explicit LogCapture(unsigned threshold = 9);
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  // Everything written since construction or the last clear().
  std::string text() const;
  void clear();

  // The exact line the engine writes to a file for this module, level and
  // message ("LIBQ[pid]: DCMN<3+error > message").
  static std::string line(unsigned module, int level, const std::string &message);

  // Whether |text()| holds that exact line, and how often.
  bool has(unsigned module, int level, const std::string &message) const;
  int count(unsigned module, int level, const std::string &message) const;
  // Whether any line's message holds |fragment|.
  bool mentions(const std::string &fragment) const;

  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// A fresh temporary directory, removed with its contents at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }
  // Writes |content| into |name| inside the directory and returns its path.
  std::string write(const std::string &name, const std::string &content) const;

 private:
  std::string path_;
};

std::string read_file(const std::string &path);
bool file_exists(const std::string &path);
// Writes |content| to |path| (a test failure when it cannot).
void write_file(const std::string &path, const std::string &content);
// |n| bytes from a generator seeded with |seed|: the same for the same seed.
std::string random_bytes(size_t n, unsigned seed);
// Descriptors this process has open (counted in /proc/self/fd), -1 when
// they cannot be counted.
int open_descriptors();

}  // namespace quarry_test

#endif  // QUARRY_TESTS_SUPPORT_LOG_CAPTURE_H

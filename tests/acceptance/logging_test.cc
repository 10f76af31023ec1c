// The logging engine and its exported controls: line format on every
// output, thresholds, module names, output switching and recovery.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/acceptance/capture.h"
#include "tests/support/log_capture.h"

namespace {

using acceptance::pid_text;
using acceptance::StdoutCapture;
using quarry_test::file_exists;
using quarry_test::read_file;
using quarry_test::TempDir;
using ::testing::MatchesRegex;

constexpr int kTypeSyslog = 1;
constexpr int kTypeStdout = 2;
constexpr int kTypeFile = 3;
constexpr char kInitSettings[] = ",E=3,W=4,N=5,I=6,D=7\n";
// A syslog header up to the tag: priority, then characters 5 to 19 of
// ctime ("Nov 15 08:52:24") and a space.
constexpr char kSyslogStamp[] = "[A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] ";
constexpr char kTimeStamp[] = "[0-9][0-9][0-9]\\.[0-9][0-9][0-9]\\.[0-9][0-9][0-9]:";

// One line as the engine writes it to a file: tag, pid, module, label.
std::string file_line(const std::string &module, const std::string &label,
                      const std::string &message) {
  return "LIBQ[" + pid_text() + "]: " + module + label + " " + message;
}

std::string init_line(const std::string &tag, int type, int with_time) {
  return tag + " log :type=" + std::to_string(type) + ",time=" + std::to_string(with_time) +
         kInitSettings;
}

int call_vlog(unsigned module, int level, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int result = libq_vlog(module, level, fmt, ap);
  va_end(ap);
  return result;
}

// Whether some open descriptor of this process refers to |path|, and
// whether that descriptor is closed on exec.
bool open_descriptor_for(const std::string &path, bool *cloexec) {
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return false;
  bool found = false;
  while (dirent *entry = readdir(dir)) {
    std::string link = std::string("/proc/self/fd/") + entry->d_name;
    char target[4096];
    ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    if (n <= 0) continue;
    target[n] = '\0';
    if (path == target) {
      int fd = atoi(entry->d_name);
      *cloexec = (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
      found = true;
    }
  }
  closedir(dir);
  return found;
}

class Logging : public ::testing::Test {
 protected:
  void TearDown() override { libq_log_exit(); }

  // Starts file output to |name| in the scratch directory.
  std::string start_file(const char *name = "log", int flags = 0) {
    std::string path = dir_.file(name);
    libq_log_init("LIBQ", kTypeFile, flags, path.c_str());
    return path;
  }
  static void clear(const std::string &path) { ASSERT_EQ(0, truncate(path.c_str(), 0)); }

  TempDir dir_;
};

// --- the line on a file ---------------------------------------------------

TEST_F(Logging, FileInitWritesItsSettingsLine) {
  std::string path = start_file();
  EXPECT_EQ(file_line("DANY", "<0+emerg >", init_line("LIBQ", 3, 0)), read_file(path));
}

TEST_F(Logging, FileLineCarriesTagPidModuleAndLabel) {
  std::string path = start_file();
  clear(path);
  libq_log(2, 3, "Invalid URL\n");
  EXPECT_EQ(file_line("DCMN", "<3+error >", "Invalid URL\n"), read_file(path));
}

TEST_F(Logging, EngineAddsNoNewline) {
  std::string path = start_file();
  clear(path);
  libq_log(2, 3, "no end");
  libq_log(2, 3, "next\n");
  EXPECT_EQ(file_line("DCMN", "<3+error >", "no end") + file_line("DCMN", "<3+error >", "next\n"),
            read_file(path));
}

TEST_F(Logging, MessageIsFormattedWithItsArguments) {
  std::string path = start_file();
  clear(path);
  libq_log(3, 4, "%s=%d,%03x\n", "code", -7, 10);
  EXPECT_EQ(file_line("HTTP", "<4+warnin>", "code=-7,00a\n"), read_file(path));
}

TEST_F(Logging, VlogWritesTheSameLine) {
  std::string path = start_file();
  clear(path);
  call_vlog(4, 2, "block %d\n", 12);
  EXPECT_EQ(file_line("TFTP", "<2+crit  >", "block 12\n"), read_file(path));
}

TEST_F(Logging, EveryLevelHasItsLabel) {
  std::string path = start_file();
  libq_log_set(0, 9);
  clear(path);
  const char *const labels[] = {"<0+emerg >", "<1+alert >", "<2+crit  >", "<3+error >",
                                "<4+warnin>", "<5+notice>", "<6+info  >", "<7+debug >",
                                "<8+apykky>", "<9+anydbg>"};
  std::string expected;
  for (int level = 0; level <= 9; ++level) {
    libq_log(2, level, "level %d\n", level);
    expected += file_line("DCMN", labels[level], "level " + std::to_string(level) + "\n");
  }
  EXPECT_EQ(expected, read_file(path));
}

TEST_F(Logging, EveryModuleHasItsName) {
  std::string path = start_file();
  clear(path);
  const char *const names[] = {"DANY", "DMEM", "DCMN", "HTTP", "TFTP", "FTP ", "DLNC"};
  std::string expected;
  for (unsigned module = 0; module <= 6; ++module) {
    libq_log(module, 3, "m\n");
    expected += file_line(names[module], "<3+error >", "m\n");
  }
  EXPECT_EQ(expected, read_file(path));
}

TEST_F(Logging, ModuleNamesAreFourCharacters) {
  EXPECT_STREQ("DANY", libq_log_name(0));
  EXPECT_STREQ("DMEM", libq_log_name(1));
  EXPECT_STREQ("DCMN", libq_log_name(2));
  EXPECT_STREQ("HTTP", libq_log_name(3));
  EXPECT_STREQ("TFTP", libq_log_name(4));
  EXPECT_STREQ("FTP ", libq_log_name(5));
  EXPECT_STREQ("DLNC", libq_log_name(6));
  EXPECT_EQ(nullptr, libq_log_name(7));
  EXPECT_EQ(nullptr, libq_log_name(1000));
}

TEST_F(Logging, TimeFlagAddsTheSubSecondStamp) {
  std::string path = start_file("log", 1);
  clear(path);
  libq_log(2, 3, "stamped\n");
  EXPECT_THAT(read_file(path), MatchesRegex("LIBQ\\[" + pid_text() + "\\]: DCMN<3\\+error > " +
                                            kTimeStamp + "stamped\n"));
}

TEST_F(Logging, ModuleOutOfRangeWritesNothing) {
  std::string path = start_file();
  libq_log_set(0, 9);
  clear(path);
  libq_log(7, 0, "nowhere\n");
  libq_log(1000, 0, "nowhere\n");
  EXPECT_EQ("", read_file(path));
}

// --- cutting --------------------------------------------------------------

TEST_F(Logging, LineThatJustFitsIsWrittenWhole) {
  std::string path = start_file();
  clear(path);
  const std::string header = file_line("DCMN", "<3+error >", "");
  std::string message(382 - header.size(), 'm');
  libq_log(2, 3, "%s", message.c_str());
  EXPECT_EQ(header + message, read_file(path));
}

TEST_F(Logging, LongMessageIsCutAt382Characters) {
  std::string path = start_file();
  clear(path);
  const std::string header = file_line("DCMN", "<3+error >", "");
  std::string message(1000, 'm');
  libq_log(2, 3, "%s\n", message.c_str());
  std::string written = read_file(path);
  ASSERT_GE(written.size(), 382u);
  EXPECT_LE(written.size(), 384u);
  EXPECT_EQ(header + message.substr(0, 382 - header.size()), written.substr(0, 382));
  // Whatever follows the 382 characters is not message text.
  EXPECT_EQ(std::string::npos, written.find('m', 382));
}

TEST_F(Logging, CutLineIsFollowedByTheNextLineIntact) {
  std::string path = start_file();
  clear(path);
  libq_log(2, 3, "%s\n", std::string(500, 'm').c_str());
  std::string first = read_file(path);
  libq_log(2, 3, "after\n");
  std::string all = read_file(path);
  EXPECT_EQ(file_line("DCMN", "<3+error >", "after\n"), all.substr(first.size()));
}

// --- thresholds -----------------------------------------------------------

TEST_F(Logging, DefaultThresholdIsFour) {
  std::string path = start_file();
  clear(path);
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(4, libq_log_get(module));
  libq_log(2, 5, "notice\n");
  EXPECT_EQ("", read_file(path));
  libq_log(2, 4, "warning\n");
  EXPECT_EQ(file_line("DCMN", "<4+warnin>", "warning\n"), read_file(path));
}

TEST_F(Logging, ThresholdsArePerModule) {
  std::string path = start_file();
  libq_log_set(3, 7);
  clear(path);
  libq_log(3, 7, "http debug\n");
  libq_log(3, 8, "http beyond\n");
  libq_log(2, 7, "common debug\n");
  EXPECT_EQ(file_line("HTTP", "<7+debug >", "http debug\n"), read_file(path));
}

TEST_F(Logging, GetOutOfRangeIsMinusOne) {
  EXPECT_EQ(-1, libq_log_get(7));
  EXPECT_EQ(-1, libq_log_get(0xFFFFFFFFu));
}

TEST_F(Logging, SetModuleZeroSetsAllAndReturnsZero) {
  std::string path = start_file();
  clear(path);
  EXPECT_EQ(0, libq_log_set(0, 7));
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(7, libq_log_get(module));
  EXPECT_EQ(file_line("DANY", "<0+emerg >", "DANY=7\n"), read_file(path));
}

TEST_F(Logging, SetOneModuleReturnsItsPreviousThreshold) {
  std::string path = start_file();
  ASSERT_EQ(4, libq_log_set(3, 5));
  clear(path);
  EXPECT_EQ(5, libq_log_set(3, 7));
  EXPECT_EQ(7, libq_log_get(3));
  EXPECT_EQ(4, libq_log_get(2));
  EXPECT_EQ(file_line("DANY", "<0+emerg >", "HTTP=7\n"), read_file(path));
}

TEST_F(Logging, SetLogsTheModuleNameWithItsBlank) {
  std::string path = start_file();
  clear(path);
  EXPECT_EQ(4, libq_log_set(5, 6));
  EXPECT_EQ(file_line("DANY", "<0+emerg >", "FTP =6\n"), read_file(path));
}

TEST_F(Logging, SetAboveSixIsRefused) {
  start_file();
  EXPECT_EQ(-1, libq_log_set(7, 1));
  EXPECT_EQ(-1, libq_log_set(100, 1));
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(4, libq_log_get(module));
}

TEST_F(Logging, ModuleLevelIsLibqLogSet) {
  std::string path = start_file();
  clear(path);
  EXPECT_EQ(4, dl_set_log_module_level(4, 7));
  EXPECT_EQ(7, libq_log_get(4));
  EXPECT_EQ(0, dl_set_log_module_level(0, 2));
  EXPECT_EQ(2, libq_log_get(6));
  EXPECT_EQ(-1, dl_set_log_module_level(7, 2));
  const std::string expected = file_line("DANY", "<0+emerg >", "TFTP=7\n") +
                               file_line("DANY", "<0+emerg >", "DANY=2\n");
  EXPECT_EQ(expected, read_file(path).substr(0, expected.size()));
}

TEST_F(Logging, LogLevelMapsCallerLevelsToThresholds) {
  start_file();
  struct Case {
    unsigned n;
    int threshold;
  };
  for (const Case c : {Case{0, 7}, Case{1, 6}, Case{2, 4}, Case{3, 3}, Case{4, 5}, Case{9, 5},
                       Case{0xFFFFFFFFu, 5}}) {
    libq_log_set(0, 9);
    libq_log_set(6, 1);
    // The last call sets module 6, which module 0 set to the same value
    // just before: so the result is the threshold itself.
    EXPECT_EQ(c.threshold, dl_set_log_level(c.n)) << "n " << c.n;
    for (unsigned module = 0; module <= 6; ++module) {
      EXPECT_EQ(c.threshold, libq_log_get(module)) << "n " << c.n << " module " << module;
    }
  }
}

TEST_F(Logging, LogLevelSetsEveryModuleInTurn) {
  std::string path = start_file();
  clear(path);
  dl_set_log_level(2);
  std::string expected;
  for (const char *name : {"DANY", "DMEM", "DCMN", "HTTP", "TFTP", "FTP ", "DLNC"}) {
    expected += file_line("DANY", "<0+emerg >", std::string(name) + "=4\n");
  }
  EXPECT_EQ(expected, read_file(path));
}

TEST_F(Logging, SetByNameFindsFtpWithItsTrailingBlank) {
  start_file();
  EXPECT_EQ(4, libq_log_set2("ftp", 7));
  EXPECT_EQ(7, libq_log_get(5));
  EXPECT_EQ(4, libq_log_get(3));
}

TEST_F(Logging, SetByNameIgnoresCase) {
  start_file();
  EXPECT_EQ(4, libq_log_set2("Http", 6));
  EXPECT_EQ(6, libq_log_get(3));
  EXPECT_EQ(4, libq_log_set2("dcmn", 2));
  EXPECT_EQ(2, libq_log_get(2));
  EXPECT_EQ(4, libq_log_set2("FTP ", 3));
  EXPECT_EQ(3, libq_log_get(5));
}

TEST_F(Logging, SetByNameOfAnyModuleSetsAll) {
  start_file();
  EXPECT_EQ(0, libq_log_set2("dany", 6));
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(6, libq_log_get(module));
}

TEST_F(Logging, SetByUnknownNameIsRefused) {
  start_file();
  EXPECT_EQ(-1, libq_log_set2("smtp", 7));
  EXPECT_EQ(-1, libq_log_set2("ftpx", 7));
  EXPECT_EQ(-1, libq_log_set2("ft", 7));
  EXPECT_EQ(-1, libq_log_set2("httpsx", 7));
  EXPECT_EQ(-1, libq_log_set2("", 7));
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(4, libq_log_get(module));
}

TEST_F(Logging, SetByNullNameIsRefused) {
  start_file();
  EXPECT_EQ(-1, libq_log_set2(nullptr, 7));
}

// --- init -----------------------------------------------------------------

TEST_F(Logging, InitWithNullTagUsesQuestionMarksAndTimeStamps) {
  std::string path = dir_.file("log");
  EXPECT_EQ(0, libq_log_init(nullptr, kTypeFile, 1, path.c_str()));
  EXPECT_THAT(read_file(path), MatchesRegex("\\?\\?\\?\\?\\[" + pid_text() +
                                            "\\]: DANY<0\\+emerg > " + kTimeStamp +
                                            "\\?\\?\\?\\? log :type=3,time=1" + kInitSettings));
}

TEST_F(Logging, InitTakesFourBytesOfTheTag) {
  std::string path = dir_.file("log");
  libq_log_init("ABCDEFG", kTypeFile, 0, path.c_str());
  EXPECT_EQ("ABCD[" + pid_text() + "]: DANY<0+emerg > " + init_line("ABCD", 3, 0),
            read_file(path));
}

TEST_F(Logging, InitTurnsZeroBytesOfTheTagIntoSpaces) {
  std::string path = dir_.file("log");
  const char tag[4] = {'a', 'b', '\0', '\0'};
  libq_log_init(tag, kTypeFile, 0, path.c_str());
  EXPECT_EQ("ab  [" + pid_text() + "]: DANY<0+emerg > " + init_line("ab  ", 3, 0),
            read_file(path));
}

TEST_F(Logging, InitTakesTimeFromBitZeroOnly) {
  std::string path = dir_.file("log");
  libq_log_init("LIBQ", kTypeFile, 2, path.c_str());
  EXPECT_EQ(file_line("DANY", "<0+emerg >", init_line("LIBQ", 3, 0)), read_file(path));
}

TEST_F(Logging, InitResetsThresholdsToFour) {
  start_file();
  libq_log_set(0, 9);
  libq_log_set(3, 2);
  EXPECT_EQ(0, libq_log_init("LIBQ", kTypeFile, 0, dir_.file("other").c_str()));
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(4, libq_log_get(module));
}

TEST_F(Logging, InitClosesThePreviousOutput) {
  std::string first = start_file("first");
  std::string second = start_file("second");
  std::string before = read_file(first);
  libq_log(2, 3, "to second\n");
  EXPECT_EQ(before, read_file(first));
  EXPECT_EQ(file_line("DANY", "<0+emerg >", init_line("LIBQ", 3, 0)) +
                file_line("DCMN", "<3+error >", "to second\n"),
            read_file(second));
}

TEST_F(Logging, InitStoresAnUnknownTypeAndWritesNowhere) {
  std::string path = start_file();
  StdoutCapture out;
  EXPECT_EQ(0, libq_log_init("LIBQ", 7, 0, path.c_str()));
  libq_log(2, 3, "lost\n");
  EXPECT_EQ("", out.take());
  EXPECT_EQ(file_line("DANY", "<0+emerg >", init_line("LIBQ", 3, 0)), read_file(path));
}

TEST_F(Logging, UnknownTypeIsLeftForAnyKnownOne) {
  libq_log_init("LIBQ", 0, 0, nullptr);
  std::string path = dir_.file("log");
  EXPECT_EQ(0, libq_log_open(kTypeFile, path.c_str()));
  libq_log(2, 3, "found\n");
  EXPECT_EQ(file_line("DCMN", "<3+error >", "found\n"), read_file(path));
}

// --- the file output ------------------------------------------------------

TEST_F(Logging, FileIsAppendedTo) {
  std::string path = dir_.write("log", "earlier\n");
  libq_log_init("LIBQ", kTypeFile, 0, path.c_str());
  EXPECT_EQ("earlier\n" + file_line("DANY", "<0+emerg >", init_line("LIBQ", 3, 0)),
            read_file(path));
}

TEST_F(Logging, FileIsCreatedWithEveryPermissionTheUmaskAllows) {
  const mode_t saved = umask(027);
  std::string path = start_file();
  umask(saved);
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0750u, st.st_mode & 0777u);
}

TEST_F(Logging, FileDescriptorIsClosedOnExec) {
  std::string path = start_file();
  bool cloexec = false;
  ASSERT_TRUE(open_descriptor_for(path, &cloexec));
  EXPECT_TRUE(cloexec);
}

TEST_F(Logging, FileTypeWithoutPathOpensNothing) {
  EXPECT_EQ(0, libq_log_init("LIBQ", kTypeFile, 0, nullptr));
  libq_log(2, 3, "lost\n");
  // Same type: the open is ignored, and the output stays closed.
  std::string path = dir_.file("log");
  EXPECT_EQ(0, libq_log_open(kTypeFile, path.c_str()));
  libq_log(2, 3, "lost too\n");
  EXPECT_FALSE(file_exists(path));
}

TEST_F(Logging, FailedFileWriteClosesTheOutputUntilReinit) {
  libq_log_init("LIBQ", kTypeFile, 0, "/dev/full");
  libq_log(2, 3, "lost\n");
  bool cloexec = false;
  EXPECT_FALSE(open_descriptor_for("/dev/full", &cloexec));
  std::string path = dir_.file("log");
  libq_log_open(kTypeFile, path.c_str());
  libq_log(2, 3, "still lost\n");
  EXPECT_FALSE(file_exists(path));
  libq_log_init("LIBQ", kTypeFile, 0, path.c_str());
  libq_log(2, 3, "back\n");
  EXPECT_EQ(file_line("DANY", "<0+emerg >", init_line("LIBQ", 3, 0)) +
                file_line("DCMN", "<3+error >", "back\n"),
            read_file(path));
}

// --- libq_log_open --------------------------------------------------------

TEST_F(Logging, OpenOfTheCurrentTypeDoesNothing) {
  std::string first = start_file("first");
  std::string second = dir_.file("second");
  EXPECT_EQ(0, libq_log_open(kTypeFile, second.c_str()));
  libq_log(2, 3, "still first\n");
  EXPECT_FALSE(file_exists(second));
  EXPECT_NE(std::string::npos, read_file(first).find("still first\n"));
}

TEST_F(Logging, OpenOfStdoutWhileOnStdoutDoesNothing) {
  StdoutCapture out;
  libq_log_init("LIBQ", kTypeStdout, 0, nullptr);
  EXPECT_EQ(0, libq_log_open(kTypeStdout, nullptr));
  libq_log(2, 3, "x\n");
  std::string text = out.take();
  EXPECT_EQ(std::string("\x1b[1;31m[") + pid_text() + "]: DANY<0+emerg > " +
                init_line("LIBQ", 2, 0) + "\x1b[0m\x1b[1;31m[" + pid_text() +
                "]: DCMN<3+error > x\n\x1b[0m",
            text);
}

TEST_F(Logging, OpenIgnoresUnknownTypes) {
  std::string path = start_file();
  clear(path);
  EXPECT_EQ(0, libq_log_open(4, nullptr));
  EXPECT_EQ(0, libq_log_open(0, nullptr));
  EXPECT_EQ(0, libq_log_open(0xFFFFFFFFu, nullptr));
  libq_log(2, 3, "kept\n");
  EXPECT_EQ(file_line("DCMN", "<3+error >", "kept\n"), read_file(path));
}

TEST_F(Logging, OpenSwitchesFromFileToStdoutAndBack) {
  std::string path = start_file();
  clear(path);
  StdoutCapture out;
  EXPECT_EQ(0, libq_log_open(kTypeStdout, nullptr));
  libq_log(2, 3, "on stdout\n");
  EXPECT_EQ(0, libq_log_open(kTypeFile, path.c_str()));
  libq_log(2, 3, "on file\n");
  EXPECT_EQ("\x1b[1;31m[" + pid_text() + "]: DCMN<3+error > on stdout\n\x1b[0m", out.take());
  EXPECT_EQ(file_line("DCMN", "<3+error >", "on file\n"), read_file(path));
}

TEST_F(Logging, LeavingStdoutKeepsStandardOutputOpen) {
  libq_log_init("LIBQ", kTypeStdout, 0, nullptr);
  libq_log_open(kTypeFile, dir_.file("log").c_str());
  EXPECT_NE(-1, fcntl(STDOUT_FILENO, F_GETFD));
  libq_log_exit();
  EXPECT_NE(-1, fcntl(STDOUT_FILENO, F_GETFD));
  EXPECT_NE(-1, fcntl(STDERR_FILENO, F_GETFD));
  EXPECT_NE(-1, fcntl(STDIN_FILENO, F_GETFD));
}

// --- standard output ------------------------------------------------------

TEST_F(Logging, StdoutColoursByLevelAndAlwaysResets) {
  StdoutCapture out;
  libq_log_init("LIBQ", kTypeStdout, 0, nullptr);
  libq_log_set(0, 9);
  const std::string pid = pid_text();
  std::string settings_so_far = out.take();
  StdoutCapture lines;
  libq_log(2, 3, "error\n");
  libq_log(2, 4, "warning\n");
  libq_log(2, 5, "notice\n");
  libq_log(2, 6, "info\n");
  EXPECT_EQ("\x1b[1;31m[" + pid + "]: DCMN<3+error > error\n\x1b[0m" +
                "\x1b[1;33m[" + pid + "]: DCMN<4+warnin> warning\n\x1b[0m" +
                "[" + pid + "]: DCMN<5+notice> notice\n\x1b[0m" +
                "[" + pid + "]: DCMN<6+info  > info\n\x1b[0m",
            lines.take());
  EXPECT_EQ("\x1b[1;31m[" + pid + "]: DANY<0+emerg > " + init_line("LIBQ", 2, 0) + "\x1b[0m" +
                "\x1b[1;31m[" + pid + "]: DANY<0+emerg > DANY=9\n\x1b[0m",
            settings_so_far);
}

TEST_F(Logging, StdoutInfoLineIsFollowedByReset) {
  libq_log_init("LIBQ", kTypeStdout, 0, nullptr);
  libq_log_set(2, 6);
  StdoutCapture out;
  libq_log(2, 6, "plain");
  EXPECT_EQ("[" + pid_text() + "]: DCMN<6+info  > plain\x1b[0m", out.take());
}

TEST_F(Logging, StdoutReturnsWhatWasWritten) {
  libq_log_init("LIBQ", kTypeStdout, 0, nullptr);
  StdoutCapture out;
  int written = libq_log(2, 3, "counted\n");
  // Colour, line and reset go out in one write, so lines of different
  // threads never interleave.
  EXPECT_EQ(static_cast<int>(out.take().size()), written);
}

TEST_F(Logging, StdoutLineWithTimeStamp) {
  libq_log_init("LIBQ", kTypeStdout, 1, nullptr);
  StdoutCapture out;
  libq_log(2, 4, "timed\n");
  EXPECT_THAT(out.take(), MatchesRegex("\x1b\\[1;33m\\[" + pid_text() + "\\]: DCMN<4\\+warnin> " +
                                       kTimeStamp + "timed\n\x1b\\[0m"));
}

// --- exit -----------------------------------------------------------------

TEST_F(Logging, ExitRestoresThresholds) {
  start_file();
  libq_log_set(0, 9);
  EXPECT_EQ(0, libq_log_exit());
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(4, libq_log_get(module));
}

TEST_F(Logging, ExitClosesTheFile) {
  std::string path = start_file();
  clear(path);
  libq_log_exit();
  libq_log(2, 3, "after exit\n");
  EXPECT_EQ("", read_file(path));
  bool cloexec = false;
  EXPECT_FALSE(open_descriptor_for(path, &cloexec));
}

TEST_F(Logging, ExitClearsTheTimeFlag) {
  start_file("first", 1);
  libq_log_exit();
  std::string path = dir_.file("second");
  libq_log_open(kTypeFile, path.c_str());
  libq_log(2, 3, "untimed\n");
  EXPECT_EQ(file_line("DCMN", "<3+error >", "untimed\n"), read_file(path));
}

// --- exported controls ----------------------------------------------------

TEST_F(Logging, NewInitUsesTheLibraryTag) {
  std::string path = dir_.file("log");
  EXPECT_EQ(0, dl_log_new_init(kTypeFile, 1, path.c_str()));
  EXPECT_THAT(read_file(path), MatchesRegex("LIBQ\\[" + pid_text() + "\\]: DANY<0\\+emerg > " +
                                            kTimeStamp + "LIBQ log :type=3,time=1" +
                                            kInitSettings));
}

TEST_F(Logging, LogInitBitOneSelectsStdout) {
  StdoutCapture out;
  EXPECT_EQ(0, dl_log_init(2));
  EXPECT_EQ("\x1b[1;31m[" + pid_text() + "]: DANY<0+emerg > " + init_line("LIBQ", 2, 0) +
                "\x1b[0m",
            out.take());
}

TEST_F(Logging, LogInitBitTwoAddsTime) {
  StdoutCapture out;
  EXPECT_EQ(0, dl_log_init(6));
  EXPECT_THAT(out.take(), MatchesRegex("\x1b\\[1;31m\\[" + pid_text() + "\\]: DANY<0\\+emerg > " +
                                       kTimeStamp + "LIBQ log :type=2,time=1" + kInitSettings +
                                       "\x1b\\[0m"));
}

TEST_F(Logging, LogInitWithoutOutputBitsWritesNothing) {
  StdoutCapture out;
  EXPECT_EQ(0, dl_log_init(0));
  libq_log(2, 0, "nowhere\n");
  EXPECT_EQ(0, dl_log_init(4));
  libq_log(2, 0, "nowhere\n");
  EXPECT_EQ("", out.take());
}

TEST_F(Logging, LogOpenSetsLevelThenSwitches) {
  std::string path = start_file();
  clear(path);
  StdoutCapture out;
  EXPECT_EQ(0, dl_log_open(kTypeStdout, nullptr, 6));
  libq_log(2, 6, "info\n");
  EXPECT_EQ("[" + pid_text() + "]: DCMN<6+info  > info\n\x1b[0m", out.take());
  EXPECT_EQ(file_line("DANY", "<0+emerg >", "DANY=6\n"), read_file(path));
  for (unsigned module = 0; module <= 6; ++module) EXPECT_EQ(6, libq_log_get(module));
}

TEST_F(Logging, LogOpenOfTheCurrentTypeOnlySetsTheLevel) {
  std::string path = start_file();
  std::string other = dir_.file("other");
  EXPECT_EQ(0, dl_log_open(kTypeFile, other.c_str(), 7));
  EXPECT_EQ(7, libq_log_get(3));
  EXPECT_FALSE(file_exists(other));
}

void ignore_line(int, const char *) {}
int ignore_printf(const char *, ...) { return 0; }

TEST_F(Logging, CallbackSetterReturnsItsArgument) {
  EXPECT_EQ(&ignore_line, dl_set_log_callback(&ignore_line));
  EXPECT_EQ(nullptr, dl_set_log_callback(nullptr));
}

TEST_F(Logging, CallbackSettersChangeNothing) {
  std::string path = start_file();
  clear(path);
  dl_set_log_callback(&ignore_line);
  dl_set_log_cb_printf(&ignore_printf);
  dl_set_log_cb_printf(nullptr);
  libq_log(2, 3, "still to file\n");
  EXPECT_EQ(file_line("DCMN", "<3+error >", "still to file\n"), read_file(path));
}

// --- the system log -------------------------------------------------------

std::string syslog_regex(const std::string &pid, int priority, const std::string &rest) {
  return "<" + std::to_string(priority) + ">" + kSyslogStamp + "LIBQ\\[" + pid + "\\]: " + rest;
}

TEST(LoggingSyslog, LineCarriesPriorityAndDate) {
  acceptance::SyslogResult result =
      acceptance::run_with_private_dev_log([](const std::function<bool()> &listen) {
        if (!listen()) return;
        libq_log_init("LIBQ", kTypeSyslog, 0, nullptr);
        libq_log_set(0, 9);
        libq_log(2, 3, "Invalid URL\n");
        libq_log(3, 6, "info\n");
        libq_log(5, 9, "any\n");
      });
  ASSERT_TRUE(result.ok);
  ASSERT_EQ(5u, result.datagrams.size());
  EXPECT_THAT(result.datagrams[0],
              MatchesRegex(syslog_regex(result.pid, 128, "DANY<0\\+emerg > LIBQ log :type=1,time=0" +
                                                             std::string(kInitSettings))));
  EXPECT_THAT(result.datagrams[1],
              MatchesRegex(syslog_regex(result.pid, 128, "DANY<0\\+emerg > DANY=9\n")));
  EXPECT_THAT(result.datagrams[2],
              MatchesRegex(syslog_regex(result.pid, 131, "DCMN<3\\+error > Invalid URL\n")));
  EXPECT_THAT(result.datagrams[3],
              MatchesRegex(syslog_regex(result.pid, 134, "HTTP<6\\+info  > info\n")));
  EXPECT_THAT(result.datagrams[4],
              MatchesRegex(syslog_regex(result.pid, 137, "FTP <9\\+anydbg> any\n")));
}

TEST(LoggingSyslog, TimeStampFollowsTheHeader) {
  acceptance::SyslogResult result =
      acceptance::run_with_private_dev_log([](const std::function<bool()> &listen) {
        if (!listen()) return;
        libq_log_init("LIBQ", kTypeSyslog, 1, nullptr);
        libq_log(2, 3, "timed\n");
      });
  ASSERT_TRUE(result.ok);
  ASSERT_EQ(2u, result.datagrams.size());
  EXPECT_THAT(result.datagrams[1],
              MatchesRegex(syslog_regex(result.pid, 131,
                                        "DCMN<3\\+error > " + std::string(kTimeStamp) + "timed\n")));
}

TEST(LoggingSyslog, OutputHealsOnceDevLogExists) {
  acceptance::SyslogResult result =
      acceptance::run_with_private_dev_log([](const std::function<bool()> &listen) {
        libq_log_init("LIBQ", kTypeSyslog, 0, nullptr);
        libq_log(2, 3, "before the socket\n");
        if (!listen()) return;
        // This call only reconnects; its line is dropped.
        libq_log(2, 3, "reconnecting\n");
        libq_log(2, 3, "delivered\n");
      });
  ASSERT_TRUE(result.ok);
  ASSERT_EQ(1u, result.datagrams.size());
  EXPECT_THAT(result.datagrams[0],
              MatchesRegex(syslog_regex(result.pid, 131, "DCMN<3\\+error > delivered\n")));
}

TEST(LoggingSyslog, LogInitBitZeroSelectsTheSystemLogWithoutTime) {
  acceptance::SyslogResult result =
      acceptance::run_with_private_dev_log([](const std::function<bool()> &listen) {
        if (!listen()) return;
        dl_log_init(3);
        dl_log_init(5);
      });
  ASSERT_TRUE(result.ok);
  ASSERT_EQ(2u, result.datagrams.size());
  EXPECT_THAT(result.datagrams[0],
              MatchesRegex(syslog_regex(result.pid, 128, "DANY<0\\+emerg > LIBQ log :type=1,time=0" +
                                                             std::string(kInitSettings))));
  EXPECT_THAT(result.datagrams[1],
              MatchesRegex(syslog_regex(result.pid, 128,
                                        "DANY<0\\+emerg > " + std::string(kTimeStamp) +
                                            "LIBQ log :type=1,time=1" + kInitSettings)));
}

TEST(LoggingSyslog, ExitReturnsToTheSystemLog) {
  acceptance::SyslogResult result =
      acceptance::run_with_private_dev_log([](const std::function<bool()> &listen) {
        if (!listen()) return;
        TempDir dir;
        libq_log_init("LIBQ", kTypeFile, 0, dir.file("log").c_str());
        libq_log_exit();
        libq_log(2, 3, "reconnecting\n");
        libq_log(2, 3, "on syslog\n");
      });
  ASSERT_TRUE(result.ok);
  ASSERT_EQ(1u, result.datagrams.size());
  EXPECT_THAT(result.datagrams[0],
              MatchesRegex(syslog_regex(result.pid, 131, "DCMN<3\\+error > on syslog\n")));
}

}  // namespace

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::read_file;
using quarry_test::TempDir;
using ::testing::MatchesRegex;

// Points standard output at a pipe for one scope and returns what the
// engine wrote there.
class StdoutCapture {
 public:
  StdoutCapture() {
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    if (pipe(fds_) != 0) ADD_FAILURE() << "pipe";
    fcntl(fds_[0], F_SETFL, O_NONBLOCK);
    dup2(fds_[1], STDOUT_FILENO);
  }
  ~StdoutCapture() { restore(); }

  std::string take() {
    restore();
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds_[0], buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    close(fds_[1]);
    saved_ = -1;
  }
  int saved_ = -1;
  int fds_[2] = {-1, -1};
};

std::string pid_text() { return "[" + std::to_string(getpid()) + "]: "; }

class LogEngine : public ::testing::Test {
 protected:
  void TearDown() override { libq_log_exit(); }
  TempDir dir_;
};

TEST_F(LogEngine, DefaultThresholdDropsNoticeAndKeepsWarning) {
  std::string path = dir_.file("log");
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, path.c_str());
  libq_log(2, 5, "hidden\n");
  libq_log(2, 4, "shown\n");
  std::string text = read_file(path);
  EXPECT_EQ(text.find("hidden"), std::string::npos);
  EXPECT_NE(text.find(LogCapture::line(2, 4, "shown\n")), std::string::npos);
}

TEST_F(LogEngine, FileLineHasExactFormat) {
  std::string path = dir_.file("log");
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, path.c_str());
  std::string init_line = "LIBQ" + pid_text() +
                          "DANY<0+emerg > LIBQ log :type=3,time=0,E=3,W=4,N=5,I=6,D=7\n";
  libq_log(2, 3, "Invalid URL\n");
  EXPECT_EQ(read_file(path), init_line + "LIBQ" + pid_text() + "DCMN<3+error > Invalid URL\n");
}

TEST_F(LogEngine, EngineAddsNoNewline) {
  std::string path = dir_.file("log");
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, path.c_str());
  libq_log(3, 3, "no end");
  libq_log(3, 3, "x");
  std::string text = read_file(path);
  EXPECT_NE(text.find("HTTP<3+error > no endLIBQ"), std::string::npos);
}

TEST_F(LogEngine, EveryLevelHasItsLabel) {
  LogCapture capture;
  const char *labels[] = {"<0+emerg >", "<1+alert >", "<2+crit  >", "<3+error >", "<4+warnin>",
                          "<5+notice>", "<6+info  >", "<7+debug >", "<8+apykky>", "<9+anydbg>"};
  for (int level = 0; level <= 9; ++level) {
    libq_log(4, level, "m%d\n", level);
    EXPECT_NE(capture.text().find(std::string("TFTP") + labels[level] + " m" +
                                  std::to_string(level) + "\n"),
              std::string::npos)
        << level;
  }
}

TEST_F(LogEngine, SetLogLevelMapsCoarseLevels) {
  const struct {
    unsigned n;
    int threshold;
  } table[] = {{0, 7}, {1, 6}, {2, 4}, {3, 3}, {4, 5}, {9, 5}};
  for (const auto &entry : table) {
    dl_set_log_level(entry.n);
    for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) {
      EXPECT_EQ(libq_log_get(module), entry.threshold) << "n=" << entry.n << " module " << module;
    }
  }
}

TEST_F(LogEngine, SetModuleZeroSetsAllAndReturnsZero) {
  EXPECT_EQ(libq_log_set(0, 7), 0);
  for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) {
    EXPECT_EQ(libq_log_get(module), 7);
  }
}

TEST_F(LogEngine, SetOneModuleReturnsPreviousThreshold) {
  libq_log_set(0, 4);
  EXPECT_EQ(libq_log_set(3, 7), 4);
  EXPECT_EQ(libq_log_set(3, 2), 7);
  EXPECT_EQ(libq_log_get(3), 2);
  EXPECT_EQ(libq_log_get(2), 4);
}

TEST_F(LogEngine, SetModuleAboveSixIsRefused) {
  EXPECT_EQ(libq_log_set(7, 1), -1);
  EXPECT_EQ(libq_log_get(7), -1);
  EXPECT_EQ(libq_log_name(7), nullptr);
}

TEST_F(LogEngine, SetLogsModuleNameAndLevelAtEmergency) {
  LogCapture capture;
  libq_log_set(3, 6);
  EXPECT_TRUE(capture.has(0, 0, "HTTP=6\n"));
  EXPECT_EQ(dl_set_log_module_level(3, 5), 6);
  EXPECT_TRUE(capture.has(0, 0, "HTTP=5\n"));
}

TEST_F(LogEngine, SetByNameMatchesFtpWithItsTrailingBlank) {
  libq_log_set(0, 4);
  EXPECT_EQ(libq_log_set2("ftp", 7), 4);
  EXPECT_EQ(libq_log_get(5), 7);
}

TEST_F(LogEngine, SetByNameIgnoresCaseAndRefusesUnknownNames) {
  libq_log_set(0, 4);
  EXPECT_EQ(libq_log_set2("Http", 6), 4);
  EXPECT_EQ(libq_log_get(3), 6);
  EXPECT_EQ(libq_log_set2("dany", 2), 0);
  EXPECT_EQ(libq_log_get(6), 2);
  EXPECT_EQ(libq_log_set2("bogus", 2), -1);
  EXPECT_EQ(libq_log_set2(nullptr, 2), -1);
}

TEST_F(LogEngine, ModuleNamesAreFourCharacters) {
  const char *names[] = {"DANY", "DMEM", "DCMN", "HTTP", "TFTP", "FTP ", "DLNC"};
  for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) {
    EXPECT_STREQ(libq_log_name(module), names[module]);
  }
}

TEST_F(LogEngine, LongMessageIsCutAt382Characters) {
  LogCapture capture;
  std::string message(1000, 'a');
  libq_log(2, 3, "%s", message.c_str());
  std::string text = capture.text();
  EXPECT_EQ(text.size(), 382u);
  EXPECT_EQ(text.substr(0, 4), "LIBQ");
  EXPECT_EQ(text.back(), 'a');
}

TEST_F(LogEngine, MessageThatJustFitsIsWhole) {
  LogCapture capture;
  std::string header = LogCapture::line(2, 3, "");
  std::string message(382 - header.size(), 'b');
  libq_log(2, 3, "%s", message.c_str());
  EXPECT_EQ(capture.text(), header + message);
}

TEST_F(LogEngine, StdoutInfoLineEndsWithResetButHasNoColour) {
  StdoutCapture out;
  libq_log_init("LIBQ", DL_LOG_TYPE_STDOUT, 0, nullptr);
  libq_log_set(0, 7);
  out.take();
  StdoutCapture again;
  libq_log(2, 6, "hello\n");
  EXPECT_EQ(again.take(), pid_text() + "DCMN<6+info  > hello\n\x1b[0m");
}

TEST_F(LogEngine, StdoutColoursErrorsRedAndWarningsYellow) {
  libq_log_init("LIBQ", DL_LOG_TYPE_STDOUT, 0, nullptr);
  StdoutCapture out;
  libq_log(2, 3, "bad\n");
  libq_log(2, 4, "careful\n");
  EXPECT_EQ(out.take(), "\x1b[1;31m" + pid_text() + "DCMN<3+error > bad\n\x1b[0m" + "\x1b[1;33m" +
                            pid_text() + "DCMN<4+warnin> careful\n\x1b[0m");
}

TEST_F(LogEngine, NullTagBecomesQuestionMarksAndTimeFlagAddsStamp) {
  StdoutCapture out;
  libq_log_init(nullptr, DL_LOG_TYPE_STDOUT, 1, nullptr);
  std::string text = out.take();
  EXPECT_THAT(text, MatchesRegex("\x1b\\[1;31m\\[[0-9]+\\]: DANY<0\\+emerg > "
                                 "[0-9]{3}\\.[0-9]{3}\\.[0-9]{3}:"
                                 "\\?\\?\\?\\? log :type=2,time=1,E=3,W=4,N=5,I=6,D=7\n\x1b\\[0m"));
}

TEST_F(LogEngine, ShortTagIsPaddedWithBlanks) {
  std::string path = dir_.file("log");
  libq_log_init("AB", DL_LOG_TYPE_FILE, 0, path.c_str());
  EXPECT_EQ(read_file(path).substr(0, 5), "AB  [");
}

TEST_F(LogEngine, OpenSameTypeDoesNothing) {
  std::string first = dir_.file("first");
  std::string second = dir_.file("second");
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, first.c_str());
  EXPECT_EQ(libq_log_open(DL_LOG_TYPE_FILE, second.c_str()), 0);
  libq_log(2, 3, "still first\n");
  EXPECT_NE(read_file(first).find("still first"), std::string::npos);
  EXPECT_FALSE(quarry_test::file_exists(second));
}

TEST_F(LogEngine, OpenStdoutWhileOnStdoutKeepsWriting) {
  libq_log_init("LIBQ", DL_LOG_TYPE_STDOUT, 0, nullptr);
  StdoutCapture out;
  EXPECT_EQ(libq_log_open(DL_LOG_TYPE_STDOUT, nullptr), 0);
  libq_log(2, 3, "x\n");
  EXPECT_EQ(out.take(), "\x1b[1;31m" + pid_text() + "DCMN<3+error > x\n\x1b[0m");
}

TEST_F(LogEngine, OpenIgnoresUnknownTypes) {
  std::string path = dir_.file("log");
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, path.c_str());
  EXPECT_EQ(libq_log_open(0, nullptr), 0);
  EXPECT_EQ(libq_log_open(4, nullptr), 0);
  libq_log(2, 3, "kept\n");
  EXPECT_NE(read_file(path).find("kept"), std::string::npos);
}

TEST_F(LogEngine, OpenSwitchesFromStdoutToFile) {
  std::string path = dir_.file("log");
  libq_log_init("LIBQ", DL_LOG_TYPE_STDOUT, 0, nullptr);
  libq_log_open(DL_LOG_TYPE_FILE, path.c_str());
  libq_log(5, 3, "to file\n");
  EXPECT_EQ(read_file(path), "LIBQ" + pid_text() + "FTP <3+error > to file\n");
}

TEST_F(LogEngine, FileTypeWithoutPathWritesNothing) {
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, nullptr);
  EXPECT_EQ(libq_log(2, 3, "lost\n"), -1);
}

TEST_F(LogEngine, FailedFileWriteClosesTheFileForGood) {
  // /dev/full opens but refuses every write.
  libq_log_init("LIBQ", DL_LOG_TYPE_FILE, 0, "/dev/full");
  EXPECT_LT(libq_log(2, 3, "first\n"), 0);
  // The output was re-opened without a path: nothing is written any more.
  EXPECT_EQ(libq_log(2, 3, "second\n"), -1);
}

TEST_F(LogEngine, NoOutputTypeWritesNothing) {
  dl_log_init(0);
  EXPECT_EQ(libq_log(2, 0, "nowhere\n"), -1);
}

TEST_F(LogEngine, LogInitFlagsPickStdoutAndTime) {
  StdoutCapture out;
  dl_log_init(2 | 4);
  EXPECT_THAT(out.take(), MatchesRegex(".*DANY<0\\+emerg > [0-9.]{11}:LIBQ log :type=2,time=1.*"));
}

TEST_F(LogEngine, LogOpenSetsLevelThenSwitchesOutput) {
  std::string path = dir_.file("log");
  dl_log_init(0);
  EXPECT_EQ(dl_log_open(DL_LOG_TYPE_FILE, path.c_str(), 7), 0);
  for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) EXPECT_EQ(libq_log_get(module), 7);
  libq_log(2, 7, "debug\n");
  EXPECT_NE(read_file(path).find("DCMN<7+debug > debug\n"), std::string::npos);
}

TEST_F(LogEngine, ExitRestoresThresholds) {
  libq_log_set(0, 9);
  libq_log_exit();
  for (unsigned module = 0; module < LIBQ_LOG_MODULES; ++module) EXPECT_EQ(libq_log_get(module), 4);
}

TEST_F(LogEngine, CallbackSettersAreNoOps) {
  dl_log_callback cb = reinterpret_cast<dl_log_callback>(&dl_exit);
  EXPECT_EQ(dl_set_log_callback(cb), cb);
  dl_set_log_cb_printf(nullptr);
}

TEST_F(LogEngine, OutOfRangeModuleIsNotWritten) {
  LogCapture capture;
  EXPECT_EQ(libq_log(7, 0, "nope\n"), -1);
  EXPECT_EQ(capture.text(), "");
}

}  // namespace

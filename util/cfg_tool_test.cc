#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_name.h"
#include "util/util.h"

namespace {

using quarry::run_tool_line;
using quarry_test::LogCapture;
using quarry_test::RowName;
using quarry_test::TempDir;

// A stand-in for the configuration tool: a shell script in a scratch
// directory.
class CfgTool : public ::testing::Test {
 protected:
  std::string tool(const std::string &body) {
    std::string path = dir_.write("tool", "#!/bin/sh\n" + body);
    chmod(path.c_str(), 0700);
    return path;
  }
  TempDir dir_;
};

// One line read from a stand-in tool with body |script|, given |first|
// and |second|, into a buffer holding |before| with |room| bytes offered.
struct LineCase {
  const char *name;
  const char *script;
  const char *first;
  const char *second;
  const char *before;
  int room;
  const char *after;
};

const LineCase kLineCases[] = {
    {"ReadsTheFirstLineWithItsNewline", "echo \"value-$1-$2\"\necho second\n", "get", "key", "",
     64, "value-get-key\n"},
    {"SilentToolLeavesTheBufferAsItWas", "exit 0\n", "get", "key", "previous", 16, "previous"},
    {"FailingToolIsNoError", "exit 3\n", "get", "key", "previous", 16, "previous"},
    {"LineIsCutToTheRoomGiven", "echo abcdefgh\n", "a", "b", "", 4, "abc"},
    {"ArgumentsReachTheShellUnquoted", "echo \"$#:$1:$2:$3\"\n", "one two", "three", "", 64,
     "3:one:two:three\n"},
};

class CfgToolLine : public CfgTool, public ::testing::WithParamInterface<LineCase> {};

TEST_P(CfgToolLine, Reads) {
  const LineCase &c = GetParam();
  std::string t = tool(c.script);
  char buf[64];
  snprintf(buf, sizeof buf, "%s", c.before);
  EXPECT_EQ(run_tool_line(t.c_str(), c.first, c.second, buf, c.room), 0);
  EXPECT_STREQ(buf, c.after);
}

INSTANTIATE_TEST_SUITE_P(Tools, CfgToolLine, ::testing::ValuesIn(kLineCases), RowName());

TEST_F(CfgTool, CommandIsCutAt511Characters) {
  std::string t = tool("echo ${#2}\n");
  std::string long_arg(600, 'b');
  char buf[16] = "";
  EXPECT_EQ(run_tool_line(t.c_str(), "a", long_arg.c_str(), buf, sizeof(buf)), 0);
  // "<tool> a " takes the tool's length plus three.
  EXPECT_EQ(std::string(buf), std::to_string(511 - t.size() - 3) + "\n");
}

TEST_F(CfgTool, PopenFailureIsLogged) {
  std::string t = tool("echo x\n");
  // With no descriptor left below the limit, popen cannot make its pipe.
  int lowest = dup(0);
  ASSERT_GE(lowest, 0);
  close(lowest);
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  LogCapture capture;
  struct rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowest);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  char buf[16] = "previous";
  int result = run_tool_line(t.c_str(), "a", "b", buf, sizeof(buf));
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(result, -1);
  EXPECT_STREQ(buf, "previous");
  EXPECT_TRUE(capture.has(2, 3, "popen error\n"));
}

TEST_F(CfgTool, BadArgumentsAreRefused) {
  LogCapture capture;
  char buf[16] = "previous";
  EXPECT_EQ(dl_get_str_cmd(nullptr, "b", buf, sizeof(buf)), -1);
  EXPECT_EQ(dl_get_str_cmd("a", nullptr, buf, sizeof(buf)), -1);
  EXPECT_EQ(dl_get_str_cmd("a", "b", nullptr, 16), -1);
  EXPECT_EQ(dl_get_str_cmd("a", "b", buf, 0), -1);
  EXPECT_EQ(dl_get_str_cmd("a", "b", buf, -5), -1);
  EXPECT_STREQ(buf, "previous");
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 5);
}

TEST(CfgServer, MissingToolLeavesTheBufferAsItWas) {
  if (access("/boot/bin/cfgserver", F_OK) == 0) GTEST_SKIP() << "the real tool is installed";
  char buf[16] = "previous";
  // The unquoted second word keeps the shell's complaint out of the test log.
  EXPECT_EQ(dl_get_str_cmd("get", "2>/dev/null", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "previous");
}

}  // namespace

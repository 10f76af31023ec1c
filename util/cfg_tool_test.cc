#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "util/util.h"

namespace {

using quarry::run_tool_line;
using quarry_test::LogCapture;
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

TEST_F(CfgTool, ReadsTheFirstLineWithItsNewline) {
  std::string t = tool("echo \"value-$1-$2\"\necho second\n");
  char buf[64] = "";
  EXPECT_EQ(run_tool_line(t.c_str(), "get", "key", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "value-get-key\n");
}

TEST_F(CfgTool, SilentToolLeavesTheBufferAsItWas) {
  std::string t = tool("exit 0\n");
  char buf[16] = "previous";
  EXPECT_EQ(run_tool_line(t.c_str(), "get", "key", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "previous");
}

TEST_F(CfgTool, FailingToolIsNoError) {
  std::string t = tool("exit 3\n");
  char buf[16] = "previous";
  EXPECT_EQ(run_tool_line(t.c_str(), "get", "key", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "previous");
}

TEST_F(CfgTool, LineIsCutToTheRoomGiven) {
  std::string t = tool("echo abcdefgh\n");
  char buf[16] = "";
  EXPECT_EQ(run_tool_line(t.c_str(), "a", "b", buf, 4), 0);
  EXPECT_STREQ(buf, "abc");
}

TEST_F(CfgTool, ArgumentsReachTheShellUnquoted) {
  std::string t = tool("echo \"$#:$1:$2:$3\"\n");
  char buf[64] = "";
  EXPECT_EQ(run_tool_line(t.c_str(), "one two", "three", buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "3:one:two:three\n");
}

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

// What a command-line user expects of the quarry tool: --help and
// --version on standard output, errors that name the culprit, HTTP failures
// in HTTP's words, documented exit codes and a manual page that covers the
// commands and options.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"
#include "tools/cli_test_support.h"

namespace {

using quarry_cli_test::CliRun;
using quarry_cli_test::Stderr;

CliRun run_cli(const std::string &args) { return quarry_cli_test::run(args); }
CliRun run_cli_stdout(const std::string &args) {
  return quarry_cli_test::run(args, Stderr::kDropped);
}

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char *const kCommands[] = {"get", "put", "ring", "resolve", "cert", "version", "error"};

// The manual page as text: roff's escaped hyphens made plain.
std::string man_page() {
  std::string page = quarry_test::read_file(QUARRY_SOURCE_DIR "/tools/quarry.1");
  return std::regex_replace(page, std::regex(R"(\\-)"), "-");
}

// Serves one HTTP answer with |status_line| and an empty body.
std::string serve_status(quarry_test::TcpPeer &peer, const std::string &status_line) {
  peer.add({quarry_test::read_until("\r\n\r\n"),
            quarry_test::send_bytes(status_line + "\r\nContent-Length: 0\r\n\r\n"),
            quarry_test::close_conn()});
  peer.start();
  return "http://127.0.0.1:" + std::to_string(peer.port()) + "/f";
}

TEST(QuarryCliManners, HelpGoesToStandardOutputAndExitsZero) {
  CliRun r = run_cli_stdout("--help");
  EXPECT_EQ(r.status, kExitOk);
  EXPECT_EQ(r.out.rfind("usage: quarry get URL", 0), 0u) << r.out;
  EXPECT_EQ(run_cli_stdout("-h").out, r.out);
}

TEST(QuarryCliManners, HelpListsEveryCommand) {
  const std::string help = run_cli_stdout("--help").out;
  for (const char *command : kCommands) {
    EXPECT_NE(help.find(std::string("quarry ") + command), std::string::npos) << command;
  }
}

TEST(QuarryCliManners, HelpDocumentsTheExitCodes) {
  EXPECT_NE(run_cli_stdout("--help").out.find(
                "exit status: 0 done, 1 the transfer failed, 2 usage error\n"),
            std::string::npos);
}

TEST(QuarryCliManners, UsageErrorGoesToStandardErrorOnly) {
  CliRun r = run_cli_stdout("get");
  EXPECT_EQ(r.status, kExitUsage);
  EXPECT_EQ(r.out, "");
}

TEST(QuarryCliManners, VersionOptionPrintsLibraryVersion) {
  CliRun r = run_cli_stdout("--version");
  EXPECT_EQ(r.status, kExitOk);
  EXPECT_EQ(r.out, "libquarry 5.4.0.32\n");
}

// Runs the tool with |args| and expects a usage error whose first line is
// |first_line|, followed by the usage.
void expect_usage_error(const std::string &args, const std::string &first_line) {
  CliRun r = run_cli(args);
  EXPECT_EQ(r.status, kExitUsage) << args;
  EXPECT_EQ(r.out.rfind(first_line + "\nusage: ", 0), 0u) << r.out;
}

TEST(QuarryCliManners, UnknownOptionAfterCommandNamesItself) {
  expect_usage_error("get http://127.0.0.1:1/x --frobnicate",
                     "quarry: unknown option --frobnicate");
}

TEST(QuarryCliManners, UnknownOptionBeforeCommandNamesItself) {
  expect_usage_error("--frobnicate", "quarry: unknown option --frobnicate");
}

TEST(QuarryCliManners, UnknownResolveOptionNamesItself) {
  expect_usage_error("resolve example.com --frobnicate", "quarry: unknown option --frobnicate");
}

TEST(QuarryCliManners, UnknownCommandNamesItself) {
  expect_usage_error("fetch http://127.0.0.1:1/x", "quarry: unknown command fetch");
}

TEST(QuarryCliManners, OptionWithoutValueNamesItself) {
  expect_usage_error("get http://127.0.0.1:1/x -o", "quarry: option -o needs a value");
}

TEST(QuarryCliManners, HttpStatusFailureUsesStandardReasonPhrase) {
  quarry_test::TcpPeer peer;
  CliRun r = run_cli("get " + serve_status(peer, "HTTP/1.1 403 Go Away"));
  EXPECT_EQ(r.status, kExitFailed);
  EXPECT_EQ(r.out, "quarry: failed: HTTP 403 Forbidden\n");
}

TEST(QuarryCliManners, HttpStatusFailureToFileUsesStandardReasonPhrase) {
  quarry_test::TcpPeer peer;
  quarry_test::TempDir dir;
  CliRun r = run_cli("get " + serve_status(peer, "HTTP/1.1 503 Service Unavailable") + " -o " +
                     dir.file("out"));
  EXPECT_EQ(r.status, kExitFailed);
  EXPECT_EQ(r.out, "quarry: failed: HTTP 503 Service Unavailable\n");
}

TEST(QuarryCliManners, UnregisteredHttpStatusKeepsLibraryText) {
  quarry_test::TcpPeer peer;
  CliRun r = run_cli("get " + serve_status(peer, "HTTP/1.1 599 Odd"));
  EXPECT_EQ(r.status, kExitFailed);
  EXPECT_EQ(r.out, "quarry: failed: 599 Unknown Error\n");
}

TEST(QuarryCliManners, ManualPageCoversEveryCommand) {
  const std::string page = man_page();
  for (const char *command : kCommands) {
    // Each command is an item of its own: ".TP", then the command in bold.
    const std::regex item(std::string(R"re(\n\.TP\n\.BI? "?)re") + command + R"re([ "\n])re");
    EXPECT_TRUE(std::regex_search(page, item)) << command;
  }
}

TEST(QuarryCliManners, ManualPageCoversEveryOptionOfTheUsage) {
  const std::string help = run_cli_stdout("--help").out;
  const std::string page = man_page();
  std::set<std::string> options;
  const std::regex option(R"(--?[a-z][a-z-]*)");
  for (auto it = std::sregex_iterator(help.begin(), help.end(), option);
       it != std::sregex_iterator(); ++it) {
    options.insert(it->str());
  }
  EXPECT_GT(options.size(), 15u);
  for (const std::string &name : options) {
    EXPECT_NE(page.find(name), std::string::npos) << name;
  }
}

TEST(QuarryCliManners, ManualPageDocumentsTheExitCodes) {
  const std::string page = man_page();
  const size_t section = page.find(".SH EXIT STATUS\n");
  ASSERT_NE(section, std::string::npos);
  EXPECT_NE(page.find(".B 0\nDone.", section), std::string::npos);
  EXPECT_NE(page.find(".B 1\nThe transfer failed", section), std::string::npos);
  EXPECT_NE(page.find(".B 2\nA usage error", section), std::string::npos);
}

}  // namespace

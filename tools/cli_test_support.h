// Runs the quarry tool as a caller does, for the CLI tests.
#ifndef QUARRY_TOOLS_CLI_TEST_SUPPORT_H
#define QUARRY_TOOLS_CLI_TEST_SUPPORT_H

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace quarry_cli_test {

struct CliRun {
  int status;
  std::string out;
};

// Runs the tool with |args|; standard error is joined to standard output,
// or dropped when only the output proper is compared.
enum class Stderr { kJoined, kDropped };
inline CliRun run(const std::string &args, Stderr err = Stderr::kJoined) {
  std::string command = std::string(QUARRY_CLI) + " " + args +
                        (err == Stderr::kJoined ? " 2>&1" : " 2>/dev/null");
  CliRun result{-1, ""};
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) result.out.append(buf, n);
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace quarry_cli_test

#endif  // QUARRY_TOOLS_CLI_TEST_SUPPORT_H

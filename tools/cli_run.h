// Test helper: runs the quarry tool as a caller would and keeps its exit
// status and output. QUARRY_CLI names the binary.
#ifndef QUARRY_TOOLS_CLI_RUN_H
#define QUARRY_TOOLS_CLI_RUN_H

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace quarry_cli_test {

struct CliRun {
  int status;
  std::string out;
};

// Runs "quarry |args| |redirect|" through the shell and keeps what reaches
// standard output. The status is -1 when the tool did not exit normally.
inline CliRun run_cli_redirected(const std::string &args, const char *redirect) {
  const std::string command = std::string(QUARRY_CLI) + " " + args + " " + redirect;
  CliRun result{-1, ""};
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) result.out.append(buf, n);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// Runs "quarry |args|", standard error joined to standard output.
inline CliRun run_cli(const std::string &args) { return run_cli_redirected(args, "2>&1"); }

// Runs "quarry |args|" keeping only its standard output.
inline CliRun run_cli_stdout(const std::string &args) {
  return run_cli_redirected(args, "2>/dev/null");
}

}  // namespace quarry_cli_test

#endif  // QUARRY_TOOLS_CLI_RUN_H

// quarry resolve: one question to the library's own DNS resolver.
#ifndef QUARRY_TOOLS_RESOLVE_CMD_H
#define QUARRY_TOOLS_RESOLVE_CMD_H

namespace quarry_cli {

// Runs "quarry resolve" with the arguments after the command word.
// Returns the tool's exit status.
int run_resolve(int argc, char **argv);

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_RESOLVE_CMD_H

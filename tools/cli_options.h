// The CLI's --set NAME=VALUE: library options by name.
#ifndef QUARRY_TOOLS_CLI_OPTIONS_H
#define QUARRY_TOOLS_CLI_OPTIONS_H

#include <string>

namespace quarry_cli {

// Applies one "NAME=VALUE" setting through dl_set_option. False with a
// reason when the name is unknown, the value is not a number where one is
// needed, or the library refuses it.
bool apply_setting(const std::string &setting, std::string *problem);

// The names --set knows, separated by blanks.
std::string option_names();

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_CLI_OPTIONS_H

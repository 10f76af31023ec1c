// What the quarry tool's subcommands share on their command lines: a walk
// over the arguments with an option's value taken after it, the verbose
// switch, unknown options named, and the library's start-up for them.
#ifndef QUARRY_TOOLS_ARG_WALK_H
#define QUARRY_TOOLS_ARG_WALK_H

#include <string>
#include <vector>

namespace quarry_cli {

class ArgWalk {
 public:
  // What value() does when an option is last and has no value.
  enum class Missing { kQuiet, kSay };

  // Walks argv[first] to argv[argc - 1].
  ArgWalk(int argc, char **argv, int first, Missing missing);

  // Moves to the next argument; false after the last.
  bool next();
  const std::string &arg() const { return arg_; }
  // The position of the current argument, for parsers that take their
  // own values from argv (advancing it past them).
  int *index() { return &i_; }

  // Takes the argument after the current option into |out|. False when
  // there is none: "quarry: option X needs a value" when made kSay.
  bool value(std::string *out);
  // value() read as a decimal number (atoi: 0 when it is not one).
  bool number(int *out);
  // Whether the current argument is -v or --verbose.
  bool verbose() const;
  // Whether the current argument looks like an option ("-" and more) that
  // no parser took; says "quarry: unknown option X" when it does.
  bool unknown() const;

 private:
  int argc_;
  char **argv_;
  int i_;
  Missing missing_;
  std::string arg_;
};

// Initialises the library with its log on standard error at debug level
// when |verbose|, in its quiet default otherwise.
void start_library(bool verbose);

// Applies each "--set NAME=VALUE" in order. False, after "quarry: --set
// NAME=VALUE: why" on standard error, at the first one refused.
bool apply_settings(const std::vector<std::string> &settings);

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_ARG_WALK_H

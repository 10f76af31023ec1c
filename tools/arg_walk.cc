#include "tools/arg_walk.h"

#include <stdio.h>
#include <stdlib.h>

#include "quarry.h"
#include "tools/cli_options.h"

namespace quarry_cli {

ArgWalk::ArgWalk(int argc, char **argv, int first, Missing missing)
    : argc_(argc), argv_(argv), i_(first - 1), missing_(missing) {}

bool ArgWalk::next() {
  if (++i_ >= argc_) return false;
  arg_ = argv_[i_];
  return true;
}

bool ArgWalk::value(std::string *out) {
  if (i_ + 1 >= argc_) {
    if (missing_ == Missing::kSay) {
      fprintf(stderr, "quarry: option %s needs a value\n", arg_.c_str());
    }
    return false;
  }
  *out = argv_[++i_];
  return true;
}

bool ArgWalk::number(int *out) {
  std::string text;
  if (!value(&text)) return false;
  *out = atoi(text.c_str());
  return true;
}

bool ArgWalk::verbose() const { return arg_ == "-v" || arg_ == "--verbose"; }

bool ArgWalk::unknown() const {
  if (arg_.empty() || arg_[0] != '-') return false;
  fprintf(stderr, "quarry: unknown option %s\n", arg_.c_str());
  return true;
}

void start_library(bool verbose) {
  dl_config_init();
  if (verbose) {
    dl_log_new_init(DL_LOG_TYPE_FILE, 0, "/dev/stderr");
    dl_set_log_level(0);
  } else {
    dl_log_init(0);
  }
}

bool apply_settings(const std::vector<std::string> &settings) {
  for (const std::string &setting : settings) {
    std::string problem;
    if (!apply_setting(setting, &problem)) {
      fprintf(stderr, "quarry: --set %s: %s\n", setting.c_str(), problem.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace quarry_cli

// Guards the point of these suites: every library symbol the test calls
// must resolve into libquarry.so, not into a static copy linked alongside.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"

namespace {

std::string object_of(const void *address) {
  Dl_info info = {};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "";
  return info.dli_fname;
}

TEST(SharedLibrary, LibraryAndCallerShareOneSettingsRecord) {
  // The record may be copied into the executable at load time; what
  // matters is that the library's code works on the caller's copy.
  EXPECT_EQ(g_dl_cfg.config_path_prefix, dl_get_config_path_prefix());
}

TEST(SharedLibrary, FunctionsLiveInLibquarrySo) {
  EXPECT_NE(object_of(reinterpret_cast<const void *>(&dl_get_version)).find("libquarry.so"),
            std::string::npos);
  EXPECT_NE(object_of(reinterpret_cast<const void *>(&libq_log)).find("libquarry.so"),
            std::string::npos);
  EXPECT_NE(object_of(reinterpret_cast<const void *>(&url_split)).find("libquarry.so"),
            std::string::npos);
}

}  // namespace

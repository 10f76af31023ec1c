// quarry ring URL [NAME] [-v]: asks dl_distinctive_ringtone_download which
// ring to play. An empty URL ("") decides by the name alone; a WAV file is
// fetched once into /tmp and found there on later calls.
#include "tools/ring_cmd.h"

#include <stdio.h>
#include <string.h>

#include "quarry.h"
#include "tools/arg_walk.h"

namespace quarry_cli {
namespace {

constexpr int kExitUsage = 2;
constexpr size_t kPathRoom = 64;

int ring_usage() {
  fprintf(stderr, "usage: quarry ring URL [NAME] [-v]\n"
                  "prints \"ring N\", the cached WAV file's path, or \"default\"\n");
  return kExitUsage;
}

}  // namespace

int run_ring(int argc, char **argv) {
  const char *positional[2] = {nullptr, nullptr};
  int count = 0;
  bool verbose = false;
  for (int i = 0; i < argc; ++i) {
    if (strcmp(argv[i], "-v") == 0 || strcmp(argv[i], "--verbose") == 0) {
      verbose = true;
    } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
      fprintf(stderr, "quarry: unknown option %s\n", argv[i]);
      return ring_usage();
    } else if (count < 2) {
      positional[count++] = argv[i];
    } else {
      return ring_usage();
    }
  }
  if (count < 1) return ring_usage();

  start_library(verbose);
  int32_t ring = -1;
  char path[kPathRoom] = "";
  const int found =
      dl_distinctive_ringtone_download(positional[0], positional[1], &ring, path, sizeof(path));
  if (found == 0) {
    printf("default\n");
  } else if (path[0] != '\0') {
    printf("%s\n", path);
  } else {
    printf("ring %d\n", static_cast<int>(ring));
  }
  dl_exit();
  return 0;
}

}  // namespace quarry_cli

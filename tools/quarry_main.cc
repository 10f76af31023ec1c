// quarry: the library's command-line front end.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "quarry.h"

namespace {

int usage() {
  fprintf(stderr,
          "usage: quarry version\n"
          "       quarry error CODE\n");
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return usage();
  if (strcmp(argv[1], "version") == 0) {
    printf("libquarry %s\n", dl_get_version());
    return 0;
  }
  if (strcmp(argv[1], "error") == 0 && argc == 3) {
    char text[256];
    dl_get_error_string(atoi(argv[2]), text, sizeof(text));
    printf("%s\n", text);
    return 0;
  }
  return usage();
}

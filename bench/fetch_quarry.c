/* One download through libquarry, initialisation included: the program
 * bench/footprint.sh measures the peak heap of.  fetch_quarry URL FILE */
#include <stdio.h>

#include "quarry.h"

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  uint32_t max_size = 128u << 20;
  dl_config_init();
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &max_size);
  dl_request req = {argv[1], NULL, NULL, NULL};
  char redirect[512];
  dl_error err;
  int rc = dl_download(&req, argv[2], redirect, &err);
  if (rc != 0) fprintf(stderr, "%d %s\n", err.code, err.msg);
  dl_exit();
  return rc != 0;
}

/* A firmware integrator's first program against an installed libquarry. */
#include <quarry.h>
#include <stdio.h>
#include <string.h>

int main(void) {
  dl_config_init();
  const char *version = dl_get_version();
  int32_t ring = 0;
  char path[64] = "";
  int found = dl_distinctive_ringtone_download(NULL, "ringtone-7", &ring, path, sizeof(path));
  dl_url *url = dl_url_parse("http://phone.invalid:8080/cfg.xml", NULL, NULL, NULL);
  int ok = version != NULL && version[0] != '\0' && found == 1 && ring == 7 && url != NULL &&
           strcmp(url->host, "phone.invalid") == 0 && url->port == 8080;
  dl_url_free(url);
  dl_exit();
  printf("%s: %s\n", version != NULL ? version : "(no version)", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}

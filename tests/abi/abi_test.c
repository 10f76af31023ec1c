/* Strict C99 use of the public header against libquarry.so: the records
 * keep their layout and the core calls behave from C. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "quarry.h"

static int failures = 0;
static int checks = 0;

#define CHECK(cond)                                               \
  do {                                                            \
    ++checks;                                                     \
    if (!(cond)) {                                                \
      ++failures;                                                 \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
    }                                                             \
  } while (0)

static void check_layouts(void) {
  CHECK(sizeof(dl_error) == 4 + 256);
  CHECK(offsetof(dl_error, msg) == 4);
  CHECK(offsetof(dl_request, user) == sizeof(char *));
  CHECK(offsetof(dl_request, proxy) == 3 * sizeof(char *));
  CHECK(offsetof(dl_url_parts, host) >= 4);
  CHECK(offsetof(dl_url, is_ipv6) == 8);
  CHECK(offsetof(dl_http_param, url) == sizeof(void *));
  CHECK(offsetof(dl_http_param_ex, mode) == sizeof(void *));
  CHECK(sizeof(dns_answer) == 16 + 512);
  CHECK(sizeof(((dl_ca_list *)0)->info) / sizeof(dl_ca_info) == 10);
  CHECK(offsetof(dl_cert_result, msg) == 4);
  CHECK(sizeof(((dl_config *)0)->ring_map) == 1280);
  CHECK(offsetof(dl_config, resolv_conf_path_end) ==
        offsetof(dl_config, resolv_conf_path) + 4096);
  CHECK(offsetof(dl_config, hosts_path_end) == offsetof(dl_config, hosts_path) + 4096);
  CHECK(offsetof(dl_config, timeout_s) == offsetof(dl_config, max_file_size) + 4);
}

static void check_core_calls(void) {
  char buf[64];
  uint32_t timeout = 30;
  uint32_t bad_timeout = 301;

  CHECK(dl_get_error_string(DL_ERR_URL, buf, sizeof(buf)) == 9);
  CHECK(strcmp(buf, "Wrong URL") == 0);
  CHECK(strcmp(dl_get_version(), "5.4.0.32") == 0);

  dl_config_init();
  CHECK(g_dl_cfg.initialised == 1);
  CHECK(strcmp(g_dl_cfg.user_agent, "Vantrel") == 0);
  CHECK(dl_set_option(DL_OPT_TIMEOUT, &timeout) == 0);
  CHECK(g_dl_cfg.timeout_s == 30);
  CHECK(dl_set_option(DL_OPT_TIMEOUT, &bad_timeout) == -1);
  CHECK(dl_set_option(DL_OPT_TMP_DIR, "/var/tmp") == 0);
  CHECK(dl_get_option(DL_OPT_TMP_DIR, buf, sizeof(buf)) == 0);
  CHECK(strcmp(buf, "/var/tmp") == 0);
  CHECK(dl_get_config_path_prefix() == g_dl_cfg.config_path_prefix);
  dl_exit();
  CHECK(g_dl_cfg.initialised == 0);
}

int main(void) {
  dl_log_init(0); /* no output */
  check_layouts();
  check_core_calls();
  printf("%d passed, %d failed\n", checks - failures, failures);
  return failures == 0 ? 0 : 1;
}

/* The layout of every public record, field by field, against fixed values
 * for the two targets integrators build for: x86-64 (the bench) and armhf
 * (the phone, 32-bit pointers). Code built against an older quarry.h keeps
 * working only while these hold. */
#include <stddef.h>
#include <stdio.h>

#include "quarry.h"

#if defined(__x86_64__)
#define EXPECTED(x86_64, armhf) (x86_64)
#elif defined(__arm__) && defined(__ARM_PCS_VFP)
#define EXPECTED(x86_64, armhf) (armhf)
#endif

/* ctest's SKIP_RETURN_CODE: no expected values for this target. */
#define EXIT_SKIPPED 77

#ifdef EXPECTED
/* One row a record size or field offset: its name, the value this build
 * has, the value it must have. */
struct layout_row {
  const char *what;
  size_t got;
  size_t want;
};

#define SIZE(rec, x86_64, armhf) {"sizeof(" #rec ")", sizeof(rec), EXPECTED(x86_64, armhf)}
#define FIELD(rec, field, x86_64, armhf) \
  {"offsetof(" #rec ", " #field ")", offsetof(rec, field), EXPECTED(x86_64, armhf)}

static const struct layout_row rows[] = {
  SIZE(dl_error, 260, 260),
  FIELD(dl_error, code, 0, 0),
  FIELD(dl_error, msg, 4, 4),

  SIZE(dl_config, 14408, 14356),
  FIELD(dl_config, initialised, 0, 0),
  FIELD(dl_config, cfg_lock, 8, 4),
  FIELD(dl_config, config_path_prefix, 48, 28),
  FIELD(dl_config, user_agent, 176, 156),
  FIELD(dl_config, trust_ca_dir, 688, 668),
  FIELD(dl_config, server_cert_path, 1200, 1180),
  FIELD(dl_config, ssl_ca_path, 1712, 1692),
  FIELD(dl_config, ssl_cert_path, 2224, 2204),
  FIELD(dl_config, ssl_method, 2736, 2716),
  FIELD(dl_config, ssl_verify_peer, 2740, 2720),
  FIELD(dl_config, max_redirects, 2744, 2724),
  FIELD(dl_config, ssl_check_host, 2748, 2728),
  FIELD(dl_config, tmp_dir, 2752, 2732),
  FIELD(dl_config, key_password, 3264, 3244),
  FIELD(dl_config, cert_gen_param, 3776, 3756),
  FIELD(dl_config, ssl_cipher_list, 4288, 4268),
  FIELD(dl_config, max_file_size, 4800, 4780),
  FIELD(dl_config, timeout_s, 4804, 4784),
  FIELD(dl_config, ipv6_enable, 4806, 4786),
  FIELD(dl_config, auth_retry_limit, 4808, 4788),
  FIELD(dl_config, ring_map, 4810, 4790),
  FIELD(dl_config, aux_id, 6090, 6070),
  FIELD(dl_config, data_trace, 6110, 6090),
  FIELD(dl_config, resolv_conf_path, 6112, 6092),
  FIELD(dl_config, resolv_conf_path_end, 10208, 10188),
  FIELD(dl_config, resolv_conf_mtime, 10212, 10192),
  FIELD(dl_config, resolv_lock, 10216, 10196),
  FIELD(dl_config, hosts_path, 10256, 10220),
  FIELD(dl_config, hosts_path_end, 14352, 14316),
  FIELD(dl_config, hosts_mtime, 14356, 14320),
  FIELD(dl_config, hosts_lock, 14360, 14324),
  FIELD(dl_config, use_own_resolver, 14400, 14348),
  FIELD(dl_config, use_cfgserver, 14404, 14352),

  SIZE(dl_request, 32, 16),
  FIELD(dl_request, url, 0, 0),
  FIELD(dl_request, user, 8, 4),
  FIELD(dl_request, password, 16, 8),
  FIELD(dl_request, proxy, 24, 12),

  SIZE(dl_handle, 16, 8),
  FIELD(dl_handle, scheme, 0, 0),
  FIELD(dl_handle, proto, 8, 4),

  SIZE(dl_url_parts, 48, 24),
  FIELD(dl_url_parts, scheme, 0, 0),
  FIELD(dl_url_parts, host, 8, 4),
  FIELD(dl_url_parts, port, 16, 8),
  FIELD(dl_url_parts, path, 24, 12),
  FIELD(dl_url_parts, user, 32, 16),
  FIELD(dl_url_parts, password, 40, 20),

  SIZE(dl_url, 56, 32),
  FIELD(dl_url, scheme, 0, 0),
  FIELD(dl_url, request_type, 4, 4),
  FIELD(dl_url, is_ipv6, 8, 8),
  FIELD(dl_url, host, 16, 12),
  FIELD(dl_url, path, 24, 16),
  FIELD(dl_url, port, 32, 20),
  FIELD(dl_url, user, 40, 24),
  FIELD(dl_url, password, 48, 28),

  SIZE(dl_http_param, 56, 28),
  FIELD(dl_http_param, type, 0, 0),
  FIELD(dl_http_param, url, 8, 4),
  FIELD(dl_http_param, user, 16, 8),
  FIELD(dl_http_param, password, 24, 12),
  FIELD(dl_http_param, proxy, 32, 16),
  FIELD(dl_http_param, headers, 40, 20),
  FIELD(dl_http_param, body, 48, 24),

  SIZE(dl_http_param_ex, 16, 8),
  FIELD(dl_http_param_ex, param, 0, 0),
  FIELD(dl_http_param_ex, mode, 8, 4),

  SIZE(dl_http_cred, 16, 8),
  FIELD(dl_http_cred, user, 0, 0),
  FIELD(dl_http_cred, password, 8, 4),

  SIZE(dns_answer, 528, 528),
  FIELD(dns_answer, ttl, 0, 0),
  FIELD(dns_answer, type, 4, 4),
  FIELD(dns_answer, flags, 8, 8),
  FIELD(dns_answer, count, 12, 12),
  FIELD(dns_answer, addr, 16, 16),

  SIZE(dl_ca_info, 260, 260),
  FIELD(dl_ca_info, cn, 0, 0),
  FIELD(dl_ca_info, org, 64, 64),
  FIELD(dl_ca_info, expiry, 128, 128),
  FIELD(dl_ca_info, hash, 192, 192),
  FIELD(dl_ca_info, path, 196, 196),

  SIZE(dl_ca_list, 2604, 2604),
  FIELD(dl_ca_list, count, 0, 0),
  FIELD(dl_ca_list, info, 4, 4),

  SIZE(dl_ca_info_ex, 596, 596),
  FIELD(dl_ca_info_ex, version, 0, 0),
  FIELD(dl_ca_info_ex, serial, 1, 1),
  FIELD(dl_ca_info_ex, sig_alg, 65, 65),
  FIELD(dl_ca_info_ex, pubkey_alg, 129, 129),
  FIELD(dl_ca_info_ex, pubkey_bits, 196, 196),
  FIELD(dl_ca_info_ex, privkey_alg, 200, 200),
  FIELD(dl_ca_info_ex, privkey_bits, 264, 264),
  FIELD(dl_ca_info_ex, issuer, 268, 268),
  FIELD(dl_ca_info_ex, subject, 332, 332),
  FIELD(dl_ca_info_ex, hash, 396, 396),
  FIELD(dl_ca_info_ex, valid_from, 400, 400),
  FIELD(dl_ca_info_ex, valid_to, 464, 464),
  FIELD(dl_ca_info_ex, path, 528, 528),
  FIELD(dl_ca_info_ex, ext_count, 592, 592),

  SIZE(dl_ca_list_ex, 5964, 5964),
  FIELD(dl_ca_list_ex, count, 0, 0),
  FIELD(dl_ca_list_ex, info, 4, 4),

  SIZE(dl_cert_result, 260, 260),
  FIELD(dl_cert_result, status, 0, 0),
  FIELD(dl_cert_result, msg, 4, 4),
};

static int check_layouts(void) {
  int failures = 0;
  size_t i;
  for (i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    if (rows[i].got != rows[i].want) {
      ++failures;
      fprintf(stderr, "%s is %lu, expected %lu\n", rows[i].what, (unsigned long)rows[i].got,
              (unsigned long)rows[i].want);
    }
  }
  return failures;
}
#endif

int main(void) {
#ifdef EXPECTED
  int checks = (int)(sizeof rows / sizeof rows[0]);
  int failures = check_layouts();
  printf("%d passed, %d failed\n", checks - failures, failures);
  return failures == 0 ? 0 : 1;
#else
  printf("no expected layout for this target\n");
  return EXIT_SKIPPED;
#endif
}

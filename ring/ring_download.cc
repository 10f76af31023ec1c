// dl_distinctive_ringtone_download: which ring an incoming call plays.
// Every failure ends in the default ring (0); nothing is reported beyond
// the log line.
#include <strings.h>

#include "core/core.h"
#include "ring/ring.h"
#include "url/url.h"

namespace {

constexpr const char *kLoopbackHost = "127.0.0.1";

bool given(const char *text) { return text != nullptr && text[0] != '\0'; }

// The name look-up of |name| when one is given, else the default ring.
int by_name(const char *name, int32_t *ring_out) {
  return given(name) ? quarry::ring_lookup_name(name, ring_out) : 0;
}

// Whether |host| only carries a name: the loopback address or the
// placeholder host, which are never asked for a file.
bool name_only_host(const char *host) {
  return host != nullptr && (strcasecmp(host, kLoopbackHost) == 0 ||
                             strcasecmp(host, DL_RING_PLACEHOLDER_HOST) == 0);
}

}  // namespace

extern "C" {

DL_EXPORT int dl_distinctive_ringtone_download(const char *url, const char *name,
                                               int32_t *ring_out, char *path_out,
                                               size_t path_len) {
  if (ring_out == nullptr || path_out == nullptr) {
    libq_log(quarry::kModHttp, quarry::kLogError,
             "Invalid Parameter, Try to use default ringtone\n");
    return 0;
  }
  *ring_out = -1;
  if (!given(url)) return by_name(name, ring_out);

  quarry::UniqueUrl parsed(dl_url_parse(url, nullptr, nullptr, nullptr));
  if (!parsed) {
    // A bare ring name in the URL field ("Bellcore-dr2") still selects it.
    return given(name) ? quarry::ring_lookup_name(name, ring_out)
                       : quarry::ring_lookup_name(url, ring_out);
  }
  if (name_only_host(parsed->host)) {
    if (quarry::ring_lookup_prefix(parsed->host, ring_out) == 1) return 1;
    return by_name(name, ring_out);
  }
  parsed.reset();
  if (quarry::ring_fetch(url, path_out, path_len) >= 0) return 1;
  return by_name(name, ring_out);
}

}  // extern "C"

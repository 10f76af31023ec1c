// Building the Digest answer (RFC 2617 section 3.2.2) with MD5 and
// MD5-sess, qop, nonce count and client nonce.
#include <openssl/evp.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include "core/core.h"
#include "http/auth.h"

namespace {

using AuthText = quarry::UniqueMalloc<char>;

constexpr size_t kMd5Size = 16;
constexpr size_t kMd5HexRoom = 2 * kMd5Size + 1;
// The client nonce is made of the first six digits of the clock.
constexpr size_t kCnonceDigitsRoom = 7;

long system_clock() { return static_cast<long>(time(nullptr)); }

quarry::AuthClock g_clock = system_clock;
quarry::AuthCnonceSource g_cnonce_source = nullptr;

char *cnonce_from_clock() {
  char digits[kCnonceDigitsRoom];
  if (snprintf(digits, sizeof digits, "%06ld", g_clock()) < 0) return nullptr;
  return quarry::auth_base64(digits);
}

// The hooked source when a test set one, else the clock.
char *make_cnonce() { return g_cnonce_source != nullptr ? g_cnonce_source() : cnonce_from_clock(); }

// MD5 of the formatted text as lower-case hexadecimal into |hex|.
bool md5_hex(char (&hex)[kMd5HexRoom], const char *fmt, ...) __attribute__((format(printf, 2, 3)));
bool md5_hex(char (&hex)[kMd5HexRoom], const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  AuthText text(curl_mvaprintf(fmt, ap));
  va_end(ap);
  if (!text) return false;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int md_len = 0;
  if (EVP_Digest(text.get(), strlen(text.get()), md, &md_len, EVP_md5(), nullptr) != 1 ||
      md_len != kMd5Size) {
    return false;
  }
  for (size_t i = 0; i < kMd5Size; ++i) snprintf(hex + 2 * i, 3, "%02x", md[i]);
  return true;
}

// Appends ", name=\"value\"" to |line|; false when memory ran out.
bool append_item(AuthText &line, const char *name, const char *value) {
  line.reset(curl_maprintf("%s, %s=\"%s\"", line.get(), name, value));
  return line != nullptr;
}

}  // namespace

namespace quarry {

void auth_set_clock(AuthClock clock) { g_clock = clock != nullptr ? clock : system_clock; }

void auth_set_cnonce_source(AuthCnonceSource source) { g_cnonce_source = source; }

}  // namespace quarry

extern "C" {

DL_EXPORT int Curl_output_digest(dl_http_auth *state, int proxy, const char *method,
                                 const char *uri) {
  if (state == nullptr || method == nullptr || uri == nullptr) {
    quarry::auth_log_bad_param("Curl_output_digest");
    return quarry::kAuthBuildUnhandled;
  }
  const quarry::AuthSide side = quarry::auth_side(state, proxy);
  dl_http_digest *digest = side.digest;
  quarry::auth_set_line(side.header, nullptr);
  if (digest->nonce == nullptr) {
    side.pick->done = 0;
    return quarry::kAuthBuildOk;
  }
  side.pick->done = 1;
  if (digest->nc == 0) digest->nc = 1;
  if (digest->cnonce == nullptr) {
    digest->cnonce = make_cnonce();
    if (digest->cnonce == nullptr) return quarry::kAuthBuildNoMem;
  }
  const char *nonce = digest->nonce;
  const char *cnonce = digest->cnonce;
  const char *realm = digest->realm != nullptr ? digest->realm : "";

  char ha1[kMd5HexRoom];
  if (!md5_hex(ha1, "%s:%s:%s", side.user, realm, side.password)) {
    return quarry::kAuthBuildNoMem;
  }
  if (digest->algo == quarry::kDigestAlgoMd5Sess) {
    char session[kMd5HexRoom];
    if (!md5_hex(session, "%s:%s:%s", ha1, nonce, cnonce)) return quarry::kAuthBuildNoMem;
    memcpy(ha1, session, sizeof ha1);
  }

  // No hash of the body enters HA2, not even for auth-int.
  char ha2[kMd5HexRoom];
  const char *query = side.pick->iestyle != 0 ? strchr(uri, '?') : nullptr;
  const bool hashed = query != nullptr
                          ? md5_hex(ha2, "%s:%.*s", method, static_cast<int>(query - uri), uri)
                          : md5_hex(ha2, "%s:%s", method, uri);
  if (!hashed) return quarry::kAuthBuildNoMem;

  const char *prefix = proxy != 0 ? "Proxy-" : "";
  const uint32_t nc = static_cast<uint32_t>(digest->nc);
  char response[kMd5HexRoom];
  AuthText line;
  if (digest->qop != nullptr) {
    if (!md5_hex(response, "%s:%s:%08x:%s:%s:%s", ha1, nonce, nc, cnonce, digest->qop, ha2)) {
      return quarry::kAuthBuildNoMem;
    }
    line.reset(curl_maprintf(
        "%sAuthorization: Digest username=\"%s\", realm=\"%s\", nonce=\"%s\", uri=\"%s\", "
        "cnonce=\"%s\", nc=%08x, qop=\"%s\", response=\"%s\"",
        prefix, side.user, realm, nonce, uri, cnonce, nc, digest->qop, response));
  } else {
    if (!md5_hex(response, "%s:%s:%s", ha1, nonce, ha2)) return quarry::kAuthBuildNoMem;
    line.reset(curl_maprintf(
        "%sAuthorization: Digest username=\"%s\", realm=\"%s\", nonce=\"%s\", uri=\"%s\", "
        "response=\"%s\"",
        prefix, side.user, realm, nonce, uri, response));
  }
  if (!line) return quarry::kAuthBuildNoMem;
  if (digest->opaque != nullptr && !append_item(line, "opaque", digest->opaque)) {
    return quarry::kAuthBuildNoMem;
  }
  if (digest->algorithm != nullptr && !append_item(line, "algorithm", digest->algorithm)) {
    return quarry::kAuthBuildNoMem;
  }
  line.reset(curl_maprintf("%s\r\n", line.get()));
  if (!line) return quarry::kAuthBuildNoMem;

  if (digest->qop != nullptr && strcasecmp(digest->qop, "auth") == 0) {
    digest->nc = static_cast<int32_t>(nc + 1);
  }
  quarry::auth_set_line(side.header, line.release());
  return quarry::kAuthBuildOk;
}

}  // extern "C"

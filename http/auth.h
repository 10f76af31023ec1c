// http/ authentication: the layouts of the authentication state records
// that the open flow embeds in its request handling, and the hidden
// helpers and test hooks shared by the auth_*.cc files.
#ifndef QUARRY_HTTP_AUTH_H
#define QUARRY_HTTP_AUTH_H

#include <stddef.h>
#include <stdint.h>

#include "quarry.h"
#include "quarry_internal.h"
#include "util/util.h"

// Digest state of one server (origin or proxy). Every text is owned and
// released by Curl_digest_cleanup_one.
struct dl_http_digest {
  char *nonce;
  char *cnonce;
  char *realm;
  int32_t algo;   // kDigestAlgoMd5 or kDigestAlgoMd5Sess
  int32_t stale;  // 1 when the challenge said stale=true
  char *opaque;
  char *qop;        // "auth" or "auth-int"
  char *algorithm;  // the algorithm value as the server sent it
  int32_t nc;       // nonce count of the next answer
};

// Which scheme a challenge asked for.
struct dl_http_auth_pick {
  uint32_t wanted;
  uint32_t reserved;
  uint32_t picked;  // kAuthPickBasic, kAuthPickDigest or 0
  uint8_t done;     // a Digest answer has been built
  uint8_t multi;
  uint8_t iestyle;  // hash the uri only up to its first '?'
};

// One authentication exchange; the caller zero-fills it before use. The
// credentials are borrowed, the digest texts and built lines owned.
struct dl_http_auth {
  const char *user;
  const char *password;
  const char *proxy_user;
  const char *proxy_password;
  dl_http_digest digest;
  dl_http_digest proxy_digest;
  dl_http_auth_pick pick;
  dl_http_auth_pick proxy_pick;
  char *proxy_header;
  char *header;
};

namespace quarry {

// Values of dl_http_auth_pick::picked (a bit each).
constexpr uint32_t kAuthPickBasic = 1;
constexpr uint32_t kAuthPickDigest = 2;

// Values of dl_http_digest::algo.
constexpr int32_t kDigestAlgoMd5 = 0;
constexpr int32_t kDigestAlgoMd5Sess = 1;

// Results of the Curl_output_* builders.
constexpr int kAuthBuildOk = 0;
constexpr int kAuthBuildUnhandled = 2;
constexpr int kAuthBuildNoMem = 27;

// Seconds since the epoch, as time(nullptr) gives them.
using AuthClock = long (*)();
// A new client nonce text (freed with free()), or nullptr on failure.
using AuthCnonceSource = char *(*)();

// Test hooks: replace the clock the client nonce is made from, or the way
// the client nonce is made altogether. nullptr restores the default.
void auth_set_clock(AuthClock clock);
void auth_set_cnonce_source(AuthCnonceSource source);

// Base64 of the text |src| as a new heap string, nullptr when the
// encoding is empty or memory ran out. free() it.
char *auth_base64(const char *src);

// Installs |line| as the built header of |slot|, freeing the old one.
void auth_set_line(char **slot, char *line);

// Logs the one line every entry point writes for a null argument.
void auth_log_bad_param(const char *function);

// The credentials, digest state, scheme choice and header slot that serve
// the origin server, or the proxy when |proxy| is nonzero.
struct AuthSide {
  const char *user;
  const char *password;
  dl_http_digest *digest;
  dl_http_auth_pick *pick;
  char **header;
};
AuthSide auth_side(dl_http_auth *state, int proxy);

}  // namespace quarry

#endif  // QUARRY_HTTP_AUTH_H

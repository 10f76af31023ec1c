// Reading a www-authenticate challenge (RFC 2617 section 1.2 and 3.2.1)
// into the authentication state, and releasing the digest state.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "core/core.h"
#include "http/auth.h"

namespace {

using quarry::AuthSide;

// The scan formats below are bounded by these sizes less one.
constexpr size_t kKeyRoom = 256;
constexpr size_t kValueRoom = 1024;

constexpr char kQuotedPair[] = "%255[^=]=\"%1023[^\"]\"";
constexpr char kBarePair[] = "%255[^=]=%1023[^\r\n,]";

const char *skip_space(const char *p) {
  while (*p != '\0' && isspace(static_cast<unsigned char>(*p))) ++p;
  return p;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// Replaces the owned text in |slot| by a copy of |value|.
bool copy_text(char **slot, const char *value) {
  char *copy = strdup(value);
  if (copy == nullptr) return false;
  free(*slot);
  *slot = copy;
  return true;
}

// Whether the comma list |list| holds |word| as one of its items, blanks
// around an item and case not counting.
bool list_has(const char *list, const char *word) {
  const size_t word_len = strlen(word);
  const char *item = list;
  for (;;) {
    const char *end = strchr(item, ',');
    if (end == nullptr) end = item + strlen(item);
    const char *b = item;
    const char *e = end;
    while (b < e && is_blank(*b)) ++b;
    while (e > b && is_blank(e[-1])) --e;
    if (static_cast<size_t>(e - b) == word_len && strncasecmp(b, word, word_len) == 0) return true;
    if (*end == '\0') return false;
    item = end + 1;
  }
}

// "auth" is preferred, since no body hash is ever sent.
const char *choose_qop(const char *list) {
  if (list_has(list, "auth")) return "auth";
  if (list_has(list, "auth-int")) return "auth-int";
  return nullptr;
}

// Takes one key=value pair into |digest|. Returns DL_AUTH_FINE to go on,
// or the result that ends the parse.
int take_pair(dl_http_digest *digest, const char *key, const char *value) {
  if (strcasecmp(key, "nonce") == 0) {
    if (!copy_text(&digest->nonce, value)) return DL_AUTH_NOMEM;
  } else if (strcasecmp(key, "realm") == 0) {
    if (!copy_text(&digest->realm, value)) return DL_AUTH_NOMEM;
  } else if (strcasecmp(key, "opaque") == 0) {
    if (!copy_text(&digest->opaque, value)) return DL_AUTH_NOMEM;
  } else if (strcasecmp(key, "stale") == 0) {
    if (strcasecmp(value, "true") == 0) {
      digest->stale = 1;
      digest->nc = 1;
    }
  } else if (strcasecmp(key, "algorithm") == 0) {
    if (!copy_text(&digest->algorithm, value)) return DL_AUTH_NOMEM;
    if (strcasecmp(value, "MD5-sess") == 0) {
      digest->algo = quarry::kDigestAlgoMd5Sess;
    } else if (strcasecmp(value, "MD5") == 0) {
      digest->algo = quarry::kDigestAlgoMd5;
    } else {
      return DL_AUTH_BADALGO;
    }
  } else if (strcasecmp(key, "qop") == 0) {
    const char *qop = choose_qop(value);
    if (qop != nullptr && !copy_text(&digest->qop, qop)) return DL_AUTH_NOMEM;
  }
  return DL_AUTH_FINE;
}

// Parses the parameters of a Digest challenge that follow the word.
int input_digest(AuthSide side, const char *params) {
  dl_http_digest *digest = side.digest;
  side.pick->picked = quarry::kAuthPickDigest;
  const bool had_nonce = digest->nonce != nullptr;
  Curl_digest_cleanup_one(digest);

  const char *p = params;
  const char *const end = params + strlen(params);
  char key[kKeyRoom];
  char value[kValueRoom];
  for (;;) {
    p = skip_space(p);
    if (sscanf(p, kQuotedPair, key, value) != 2 && sscanf(p, kBarePair, key, value) != 2) break;
    if (strcmp(value, "\"\"") == 0) value[0] = '\0';
    const size_t key_len = strlen(key);
    const bool quoted = p[key_len + 1] == '"';
    if (strcasecmp(key, "qop") == 0) get_all_qop_content(p, key, value);

    const int taken = take_pair(digest, key, value);
    if (taken != DL_AUTH_FINE) return taken;

    // An unterminated quote leaves less text than key, value and quotes.
    const size_t used = key_len + 1 + strlen(value) + (quoted ? 2 : 0);
    const size_t left = static_cast<size_t>(end - p);
    p += used < left ? used : left;
    p = skip_space(p);
    if (*p == ',') ++p;
  }

  // A nonce we already answered, offered again without stale, means the
  // server refused that answer.
  if (!had_nonce || digest->stale != 0) {
    return digest->nonce != nullptr ? DL_AUTH_FINE : DL_AUTH_BAD;
  }
  return DL_AUTH_BAD;
}

}  // namespace

extern "C" {

DL_EXPORT int Curl_input_auth(dl_http_auth *state, int proxy, const char *value) {
  if (state == nullptr || value == nullptr) {
    quarry::auth_log_bad_param("Curl_input_auth");
    return DL_AUTH_NONE;
  }
  AuthSide side = quarry::auth_side(state, proxy);
  side.pick->picked = 0;
  const char *p = skip_space(value);
  if (strncasecmp(p, "Digest", 6) == 0) return input_digest(side, p + 6);
  if (strncasecmp(p, "Basic", 5) == 0) {
    side.pick->picked = quarry::kAuthPickBasic;
    return DL_AUTH_FINE;
  }
  return DL_AUTH_NONE;
}

DL_EXPORT int get_all_qop_content(const char *rest, const char *key, char *value) {
  if (rest == nullptr || key == nullptr || value == nullptr) {
    quarry::auth_log_bad_param("get_all_qop_content");
    return -1;
  }
  const size_t key_len = strlen(key);
  const size_t value_len = strnlen(value, kValueRoom);
  // |rest| must hold key=value as scanned, so that nothing past its end
  // is looked at.
  if (value_len == kValueRoom || strncmp(rest, key, key_len) != 0 || rest[key_len] != '=') {
    quarry::auth_log_bad_param("get_all_qop_content");
    return -1;
  }
  const char *after_eq = rest + key_len + 1;
  if (*after_eq == '"') return 0;  // a quoted list is complete already
  if (strncmp(after_eq, value, value_len) != 0) {
    quarry::auth_log_bad_param("get_all_qop_content");
    return -1;
  }

  // The list goes on up to the comma before the next key.
  const char *more = after_eq + value_len;
  const char *stop = strchr(more, '=');
  if (stop == nullptr) stop = more + strlen(more);
  const char *cut = stop;
  for (const char *q = more; q < stop; ++q) {
    if (*q == ',') cut = q;
  }
  const size_t more_len = static_cast<size_t>(cut - more);
  if (more_len == value_len && strncmp(more, value, value_len) == 0) return 0;
  const size_t room = kValueRoom - 1 - value_len;
  const size_t take = more_len < room ? more_len : room;
  memcpy(value + value_len, more, take);
  value[value_len + take] = '\0';
  return 0;
}

DL_EXPORT void Curl_digest_cleanup_one(dl_http_digest *digest) {
  if (digest == nullptr) {
    quarry::auth_log_bad_param("Curl_digest_cleanup_one");
    return;
  }
  char **const texts[] = {&digest->nonce,  &digest->cnonce, &digest->realm,
                          &digest->opaque, &digest->qop,    &digest->algorithm};
  for (char **text : texts) {
    free(*text);
    *text = nullptr;
  }
  digest->nc = 0;
  digest->algo = 0;
  digest->stale = 0;
}

}  // extern "C"

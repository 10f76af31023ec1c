// Test helpers for the authentication tests: an owned, zero-filled state
// and reference MD5 and base64 computed straight with OpenSSL.
#ifndef QUARRY_HTTP_AUTH_TEST_SUPPORT_H
#define QUARRY_HTTP_AUTH_TEST_SUPPORT_H

#include <openssl/evp.h>
#include <openssl/md5.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "http/auth.h"

namespace auth_test {

// Module and level of the lines the authentication code logs.
constexpr unsigned kHttp = 3;
constexpr int kError = 3;

// A zero-filled authentication state whose owned texts are released at
// the end of the test.
class AuthState {
 public:
  AuthState() { memset(&state_, 0, sizeof state_); }
  ~AuthState() {
    Curl_digest_cleanup_one(&state_.digest);
    Curl_digest_cleanup_one(&state_.proxy_digest);
    free(state_.header);
    free(state_.proxy_header);
  }
  AuthState(const AuthState &) = delete;
  AuthState &operator=(const AuthState &) = delete;

  dl_http_auth *get() { return &state_; }
  dl_http_auth *operator->() { return &state_; }
  std::string header() const { return state_.header != nullptr ? state_.header : "<null>"; }
  std::string proxy_header() const {
    return state_.proxy_header != nullptr ? state_.proxy_header : "<null>";
  }

 private:
  dl_http_auth state_;
};

// MD5 of |text| as 32 lower-case hexadecimal digits.
inline std::string md5_hex(const std::string &text) {
  unsigned char md[MD5_DIGEST_LENGTH];
  MD5(reinterpret_cast<const unsigned char *>(text.data()), text.size(), md);
  std::string hex;
  char pair[3];
  for (unsigned char byte : md) {
    snprintf(pair, sizeof pair, "%02x", byte);
    hex += pair;
  }
  return hex;
}

// Padded standard base64 of |text|.
inline std::string base64(const std::string &text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]),
                                reinterpret_cast<const unsigned char *>(text.data()),
                                static_cast<int>(text.size()));
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

// A heap copy of exactly |text|'s size, so that a read past its end is
// caught by the address sanitizer.
inline quarry::UniqueMalloc<char> heap_copy(const std::string &text) {
  return quarry::UniqueMalloc<char>(strdup(text.c_str()));
}

}  // namespace auth_test

#endif  // QUARRY_HTTP_AUTH_TEST_SUPPORT_H

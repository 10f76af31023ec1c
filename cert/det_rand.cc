// The deterministic byte generator behind the phone's own RSA keys: the
// same cert_gen_param and subject common name give the same key, so a
// phone re-creates its key after a reset. While a key is made, a
// RAND_METHOD of our own whose byte function is the generator is the
// process's random method; the previous method is put back on every path.
// OpenSSL's own method tables are never written to.
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "cert/cert.h"
#include "core/core.h"

namespace quarry {
namespace cert {

namespace {

constexpr size_t kBlock = 16;
constexpr size_t kBytesPerDigest = 8;
constexpr size_t kMd5Size = 16;
constexpr uint32_t kCounterStart1 = 0x51a7e001u;
constexpr uint32_t kCounterStart2 = 0x0c0ffee5u;
constexpr unsigned kStirSeed = 0x2014u;
constexpr char kCommonNameKey[] = "CN=";

struct GeneratorState {
  unsigned char a[kBlock];
  unsigned char b[kBlock];
  uint32_t counter1;
  uint32_t counter2;
  bool stirred;
  pthread_t owner;
};

GeneratorState g_state;
// Guards block B, as the random-number lock did.
pthread_mutex_t g_state_lock = PTHREAD_MUTEX_INITIALIZER;
// One key generation at a time, so that two cannot mix their streams.
pthread_mutex_t g_generation_lock = PTHREAD_MUTEX_INITIALIZER;
// Our method: the previous one's functions with the generator as byte
// function. Only ever installed while g_generation_lock is held.
RAND_METHOD g_method;
const RAND_METHOD *g_previous;

void put_u32(unsigned char *p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

bool md5(const unsigned char *data, size_t len, unsigned char *out) {
  unsigned int out_len = 0;
  return EVP_Digest(data, len, out, &out_len, EVP_md5(), nullptr) == 1 && out_len == kMd5Size;
}

void stir_block_b() {
  // rand_r: the fixed sequence of a fixed seed, untouched by other users
  // of the libc generator.
  unsigned seed = kStirSeed;
  for (size_t i = 0; i < kBlock; ++i) g_state.b[i] += static_cast<unsigned char>(rand_r(&seed));
  g_state.stirred = true;
}

int generator_bytes(unsigned char *buf, int num) noexcept {
  // Other threads keep getting real randomness while a key is made.
  if (!pthread_equal(pthread_self(), g_state.owner)) {
    return g_previous != nullptr && g_previous->bytes != nullptr ? g_previous->bytes(buf, num) : 0;
  }
  if (buf == nullptr || num <= 0) return 1;
  MutexGuard lock(&g_state_lock);
  if (!g_state.stirred) stir_block_b();
  ++g_state.counter1;
  unsigned char input[2 * kBlock + 8];
  unsigned char digest[kMd5Size] = {};
  size_t done = 0;
  size_t want = static_cast<size_t>(num);
  while (done < want) {
    ++g_state.counter2;
    memcpy(input, g_state.a, kBlock);
    memcpy(input + kBlock, g_state.b, kBlock);
    put_u32(input + 2 * kBlock, g_state.counter1);
    put_u32(input + 2 * kBlock + 4, g_state.counter2);
    md5(input, sizeof input, digest);
    size_t n = want - done < kBytesPerDigest ? want - done : kBytesPerDigest;
    memcpy(buf + done, digest, n);
    done += n;
  }
  unsigned char next[kMd5Size + kBlock];
  memcpy(next, digest, kMd5Size);
  memcpy(next + kMd5Size, g_state.b, kBlock);
  md5(next, sizeof next, g_state.b);
  return 1;
}

void common_name(const char *subject, char *out) {
  memset(out, 0, kCommonNameRoom);
  const char *at = subject != nullptr ? strstr(subject, kCommonNameKey) : nullptr;
  if (at == nullptr) return;
  at += strlen(kCommonNameKey);
  size_t n = strcspn(at, "/");
  if (n >= kCommonNameRoom) n = kCommonNameRoom - 1;
  memcpy(out, at, n);
}

void reset_generator(const char *cn) {
  MutexGuard lock(&g_state_lock);
  memset(&g_state, 0, sizeof g_state);
  g_state.counter1 = kCounterStart1;
  g_state.counter2 = kCounterStart2;
  g_state.owner = pthread_self();
  {
    CfgLock cfg;
    memcpy(g_state.a, g_dl_cfg.cert_gen_param, kBlock);
  }
  memcpy(g_state.b, cn, kBlock);
}

// Installs our method for one scope and puts the previous one back.
class GeneratorInstalled {
 public:
  GeneratorInstalled() : lock_(&g_generation_lock) {
    g_previous = RAND_get_rand_method();
    if (g_previous != nullptr) g_method = *g_previous;
    g_method.bytes = generator_bytes;
    installed_ = RAND_set_rand_method(&g_method) == 1;
  }
  ~GeneratorInstalled() {
    if (installed_) RAND_set_rand_method(g_previous);
    MutexGuard lock(&g_state_lock);
    memset(&g_state, 0, sizeof g_state);
  }
  GeneratorInstalled(const GeneratorInstalled &) = delete;
  GeneratorInstalled &operator=(const GeneratorInstalled &) = delete;
  bool installed() const { return installed_; }

 private:
  MutexGuard lock_;
  bool installed_ = false;
};

}  // namespace

void subject_common_name(const char *subject, char *out) { common_name(subject, out); }

int deterministic_key(const char *key_path, const char *subject, int bits, EVP_PKEY **key_out,
                      int *existed_out) {
  char cn[kCommonNameRoom];
  common_name(subject, cn);
  int result = -1;
  {
    GeneratorInstalled generator;
    reset_generator(cn);
    if (generator.installed()) result = dl_cert_build_rsa_key(key_path, bits, key_out, existed_out);
  }
  if (result != 0) libq_log(kModCommon, kLogError, "dl_cert_build_rsa_key() fail\n");
  return result;
}

}  // namespace cert
}  // namespace quarry

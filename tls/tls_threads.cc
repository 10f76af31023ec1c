#include "tls/tls_threads.h"

#include <openssl/crypto.h>
#include <pthread.h>

namespace {

pthread_mutex_t *g_locks = nullptr;
unsigned *g_lock_uses = nullptr;
int g_lock_total = 0;

}  // namespace

namespace quarry {

void tls_lock_callback(int mode, int n, const char * /*file*/, int /*line*/) noexcept {
  if (g_locks == nullptr || n < 0 || n >= g_lock_total) return;
  if (mode & CRYPTO_LOCK) {
    pthread_mutex_lock(&g_locks[n]);
    if (g_lock_uses != nullptr) ++g_lock_uses[n];
  } else {
    pthread_mutex_unlock(&g_locks[n]);
  }
}

unsigned long tls_thread_id() noexcept { return static_cast<unsigned long>(pthread_self()); }

void tls_locks_install() {
  int total = CRYPTO_num_locks();
  auto *locks = static_cast<pthread_mutex_t *>(OPENSSL_malloc(total * sizeof(pthread_mutex_t)));
  auto *uses = static_cast<unsigned *>(OPENSSL_malloc(total * sizeof(unsigned)));
  if (locks == nullptr || uses == nullptr) {
    OPENSSL_free(locks);
    OPENSSL_free(uses);
    return;
  }
  for (int i = 0; i < total; ++i) {
    pthread_mutex_init(&locks[i], nullptr);
    uses[i] = 0;
  }
  // A use-count array from an earlier initialisation is not freed on exit;
  // release it here so repeated init/exit cycles do not leak.
  OPENSSL_free(g_lock_uses);
  g_locks = locks;
  g_lock_uses = uses;
  g_lock_total = total;
  CRYPTO_set_id_callback(tls_thread_id);
  CRYPTO_set_locking_callback(tls_lock_callback);
}

void tls_locks_remove() {
  CRYPTO_set_locking_callback(nullptr);
  if (g_locks == nullptr) return;
  for (int i = 0; i < g_lock_total; ++i) pthread_mutex_destroy(&g_locks[i]);
  OPENSSL_free(g_locks);
  g_locks = nullptr;
  g_lock_total = 0;
}

int tls_lock_count() { return g_lock_total; }

unsigned tls_lock_uses(int n) {
  if (g_lock_uses == nullptr || n < 0 || n >= CRYPTO_num_locks()) return 0;
  return g_lock_uses[n];
}

}  // namespace quarry

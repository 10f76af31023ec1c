// OpenSSL's thread-locking state: a lock array and use counts, installed
// as OpenSSL's locking and thread-id callbacks. OpenSSL 1.1 and later lock
// internally and ignore the callbacks; the array is still kept so that the
// same calls serve an OpenSSL 1.0.x build.
#ifndef QUARRY_TLS_TLS_THREADS_H
#define QUARRY_TLS_TLS_THREADS_H

namespace quarry {

// Allocates the lock array and use counts and registers the callbacks.
// Allocation failures are tolerated: the library then runs without them.
void tls_locks_install();

// Unregisters the locking callback and destroys and frees the lock array.
// The use counts stay allocated, as nothing but statistics reads them.
void tls_locks_remove();

// The locking callback: bit 0 of |mode| locks lock |n| and counts the use,
// otherwise it unlocks it.
void tls_lock_callback(int mode, int n, const char *file, int line) noexcept;

// The thread-id callback.
unsigned long tls_thread_id() noexcept;

// Number of locks in the array (0 when none is installed) and how often
// lock |n| has been taken; for tests.
int tls_lock_count();
unsigned tls_lock_uses(int n);

}  // namespace quarry

#endif  // QUARRY_TLS_TLS_THREADS_H

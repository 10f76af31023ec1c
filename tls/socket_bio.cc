// The BIO every TLS session reads and writes its socket through: OpenSSL's
// socket BIO in all but the write, which passes MSG_NOSIGNAL. OpenSSL's
// own writes with write(2), and a server that has gone away would then end
// the phone's process with SIGPIPE instead of failing the transfer.
#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>

#include "tls/tls.h"

namespace {

// Made once and kept for the life of the process: sessions handed to the
// caller still use it after any call of the library has returned.
BIO_METHOD *g_method = nullptr;
pthread_once_t g_method_once = PTHREAD_ONCE_INIT;

int socket_write(BIO *bio, const char *data, int len) noexcept {
  int fd = -1;
  BIO_get_fd(bio, &fd);
  errno = 0;
  ssize_t n = send(fd, data, static_cast<size_t>(len), MSG_NOSIGNAL);
  int result = static_cast<int>(n);
  BIO_clear_retry_flags(bio);
  if (result <= 0 && BIO_sock_should_retry(result)) BIO_set_retry_write(bio);
  return result;
}

int socket_puts(BIO *bio, const char *text) noexcept {
  return socket_write(bio, text, static_cast<int>(strlen(text)));
}

void make_method() noexcept {
  const BIO_METHOD *base = BIO_s_socket();
  int index = BIO_get_new_index();
  if (index < 0) return;
  // Descriptor type, so that SSL_get_fd still finds the socket.
  BIO_METHOD *method =
      BIO_meth_new(index | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "socket, no SIGPIPE");
  if (method == nullptr) return;
  if (BIO_meth_set_write(method, socket_write) != 1 ||
      BIO_meth_set_puts(method, socket_puts) != 1 ||
      BIO_meth_set_read(method, BIO_meth_get_read(base)) != 1 ||
      BIO_meth_set_ctrl(method, BIO_meth_get_ctrl(base)) != 1 ||
      BIO_meth_set_create(method, BIO_meth_get_create(base)) != 1 ||
      BIO_meth_set_destroy(method, BIO_meth_get_destroy(base)) != 1) {
    BIO_meth_free(method);
    return;
  }
  g_method = method;
}

}  // namespace

namespace quarry {

BIO *tls_socket_bio(int fd) {
  pthread_once(&g_method_once, make_method);
  if (g_method == nullptr) return nullptr;
  BIO *bio = BIO_new(g_method);
  if (bio == nullptr) return nullptr;
  BIO_set_fd(bio, fd, BIO_NOCLOSE);
  return bio;
}

}  // namespace quarry

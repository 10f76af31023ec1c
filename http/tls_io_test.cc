// Reading and writing over a TLS session: an in-process TLS server with a
// throw-away self-signed key plays the other end of a socket pair, and the
// handle gets a client session made here, non-blocking as after a real
// handshake.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/select.h>

#include <string>
#include <thread>

#include "http/http_test_support.h"

namespace {

using quarry_http_test::Handle;

struct SslCtxFree {
  void operator()(SSL_CTX *c) const { SSL_CTX_free(c); }
};
struct SslFree {
  void operator()(SSL *s) const { SSL_free(s); }
};
struct PkeyFree {
  void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};
struct X509Free {
  void operator()(X509 *x) const { X509_free(x); }
};

// A server context with a fresh P-256 key and a self-signed certificate.
SSL_CTX *server_context() {
  std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_EC_gen("P-256"));
  std::unique_ptr<X509, X509Free> cert(X509_new());
  if (!key || !cert) return nullptr;
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_set_pubkey(cert.get(), key.get());
  X509_NAME *name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char *>("test"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  X509_sign(cert.get(), key.get(), EVP_sha256());
  SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
  if (ctx == nullptr) return nullptr;
  if (SSL_CTX_use_certificate(ctx, cert.get()) != 1 ||
      SSL_CTX_use_PrivateKey(ctx, key.get()) != 1) {
    SSL_CTX_free(ctx);
    return nullptr;
  }
  return ctx;
}

class TlsIo : public quarry_http_test::HttpTest {
 protected:
  void SetUp() override {
    HttpTest::SetUp();
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    server_fd_ = fds[1];
    server_ctx_.reset(server_context());
    ASSERT_NE(server_ctx_, nullptr);
    server_.reset(SSL_new(server_ctx_.get()));
    SSL_set_fd(server_.get(), server_fd_);

    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    SSL *ssl = SSL_new(ctx);
    SSL_set_fd(ssl, fds[0]);
    handle_->sock = fds[0];
    handle_->ssl = ssl;
    handle_->ssl_ctx = ctx;
    handle_->flags = DL_HTTP_TLS;

    std::thread accept([this] { accepted_ = SSL_accept(server_.get()) == 1; });
    ASSERT_EQ(SSL_connect(ssl), 1);
    accept.join();
    ASSERT_TRUE(accepted_);
    fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
  }
  void TearDown() override {
    http_reset(handle_.get());
    server_.reset();
    close(server_fd_);
    HttpTest::TearDown();
  }
  void server_says(const std::string &bytes) {
    ASSERT_EQ(SSL_write(server_.get(), bytes.data(), static_cast<int>(bytes.size())),
              static_cast<int>(bytes.size()));
  }
  std::string server_hears(size_t n) {
    std::string out;
    char buf[4096];
    while (out.size() < n) {
      int got = SSL_read(server_.get(), buf, sizeof(buf));
      if (got <= 0) break;
      out.append(buf, static_cast<size_t>(got));
    }
    return out;
  }

  Handle handle_;
  int server_fd_ = -1;
  std::unique_ptr<SSL_CTX, SslCtxFree> server_ctx_;
  std::unique_ptr<SSL, SslFree> server_;
  bool accepted_ = false;
};

TEST_F(TlsIo, WriteGoesThroughTheSession) {
  std::string data(100000, 'x');
  std::string heard;
  std::thread reader([&] { heard = server_hears(data.size()); });
  EXPECT_EQ(http_write(handle_.get(), data.data(), static_cast<int>(data.size())), 0);
  reader.join();
  EXPECT_EQ(heard, data);
}

TEST_F(TlsIo, ResponseIsReadByPeekingThroughTheSession) {
  server_says("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nServer: Tls\r\n\r\nhello");
  EXPECT_EQ(http_read_status(handle_.get()), 200);
  uint32_t size = quarry::kHeaderBlockStart;
  ASSERT_EQ(quarry::http_read_headers(handle_.get(), 200, &size), 0);
  EXPECT_STREQ(dl_http_find_header_by_name(handle_.get(), "server"), "server: Tls");
  char buf[16] = {};
  dl_error err = {};
  EXPECT_EQ(dl_http_read(handle_.get(), buf, sizeof(buf), &err), 5);
  EXPECT_STREQ(buf, "hello");
}

TEST_F(TlsIo, ReadWaitsForDataStillOnItsWay) {
  std::thread later([this] { server_says("late"); });
  char buf[8] = {};
  int n = http_recv(handle_.get(), buf, 4);
  later.join();
  EXPECT_EQ(n, 4);
  EXPECT_STREQ(buf, "late");
}

TEST_F(TlsIo, SilentServerFailsTheWait) {
  char buf[8];
  EXPECT_EQ(http_recv(handle_.get(), buf, sizeof(buf)), -1);
  char line[64];
  EXPECT_EQ(http_read_line(handle_.get(), 256, 2048, line, sizeof(line)), DL_ERR_READ);
  EXPECT_TRUE(capture_->has(3, 3, "Peek error!\n"));
}

TEST_F(TlsIo, CloseNotifyIsTheEndOfTheStream) {
  SSL_shutdown(server_.get());
  char buf[8];
  EXPECT_EQ(http_recv(handle_.get(), buf, sizeof(buf)), 0);
}

TEST_F(TlsIo, ResetSaysGoodbyeToAPeerStillThere) {
  http_reset(handle_.get());
  char buf[8];
  EXPECT_EQ(SSL_read(server_.get(), buf, sizeof(buf)), 0);
  EXPECT_EQ(SSL_get_error(server_.get(), 0), SSL_ERROR_ZERO_RETURN);
  EXPECT_EQ(handle_->ssl, nullptr);
  EXPECT_EQ(handle_->sock, 0);
}

}  // namespace

// Shared by the handshake tests: a library set up per test, a socket
// connected to a loopback peer, and dl_do_SSL_connect on it with the test
// PKI, its outs freed at the end.
#ifndef QUARRY_TLS_TLS_TEST_SUPPORT_H
#define QUARRY_TLS_TLS_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "quarry.h"
#include "tests/peer/tls_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace quarry_tls_test {

class TlsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    log_ = std::make_unique<quarry_test::LogCapture>();
    ASSERT_FALSE(quarry_test::test_pki_dir().empty()) << "no test PKI";
  }
  void TearDown() override {
    release();
    log_.reset();
    dl_exit();
  }
  static std::string pki(const std::string &file) {
    return quarry_test::test_pki_dir() + "/" + file;
  }
  static quarry_test::TlsPeerConfig server(const std::string &name = "server") {
    quarry_test::TlsPeerConfig c;
    c.cert = pki(name + ".crt");
    c.key = pki(name + ".key");
    return c;
  }
  void set_timeout(uint32_t seconds) { dl_set_option(DL_OPT_TIMEOUT, &seconds); }

  // Connects fd_ to 127.0.0.1 (or ::1) |port|.
  void connect_to(uint16_t port, bool ipv6 = false) {
    fd_ = dl_connect(ipv6 ? "::1" : "127.0.0.1", port, ipv6 ? 1 : 0, 5);
    ASSERT_GT(fd_, 0);
  }
  // dl_do_SSL_connect on fd_; trust from the test CA's hashed directory.
  int handshake(int method, int verify, int check_host, const char *host,
                const char *cert_file = nullptr, const std::string &ca = pki("cadir")) {
    return dl_do_SSL_connect(fd_, cert_file, ca.c_str(), method, verify, check_host, host, &ssl_,
                             &ctx_);
  }
  // A peer with one connection that plays |script| and the handshake on it.
  int handshake_with(quarry_test::TlsPeer *peer, int method, int verify, int check_host,
                     const char *host, const char *cert_file = nullptr,
                     quarry_test::Script script = {}) {
    EXPECT_TRUE(peer->ok());
    peer->add(std::move(script));
    peer->start();
    connect_to(peer->port());
    return handshake(method, verify, check_host, host, cert_file);
  }
  void release() {
    if (ssl_ != nullptr) SSL_free(ssl_);
    if (ctx_ != nullptr) SSL_CTX_free(ctx_);
    ssl_ = nullptr;
    ctx_ = nullptr;
    if (fd_ > 0) close(fd_);
    fd_ = -1;
  }

  std::unique_ptr<quarry_test::LogCapture> log_;
  int fd_ = -1;
  SSL *ssl_ = nullptr;
  SSL_CTX *ctx_ = nullptr;
};

}  // namespace quarry_tls_test

#endif  // QUARRY_TLS_TLS_TEST_SUPPORT_H

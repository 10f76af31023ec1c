// dl_do_SSL_connect: a fresh context and session for one connected socket,
// set up from the caller's settings, the handshake, and the checks of the
// server's certificate. Nothing is kept between connections.
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include "core/core.h"
#include "tls/tls.h"

namespace {

constexpr int kVerifyDepth = 10;
constexpr size_t kSeedBytes = 1024;
constexpr unsigned kLowByte = 0xff;

void log_error(const char *text) { libq_log(quarry::kModCommon, quarry::kLogError, "%s", text); }
void log_info(const char *text) { libq_log(quarry::kModCommon, quarry::kLogInfo, "%s", text); }

// The client certificate and its key, both from the one PEM file. Returns
// 0 (also when the file is missing: the connection goes on without) or
// DL_ERR_CONNECT.
int use_client_credentials(SSL_CTX *ctx, const char *cert_file) {
  SSL_CTX_set_default_passwd_cb(ctx, password_cb);
  if (access(cert_file, F_OK) != 0) {
    log_info("Https ca serverfile file no exist\n");
    return 0;
  }
  if (SSL_CTX_use_certificate_file(ctx, cert_file, SSL_FILETYPE_PEM) != 1) {
    log_error("load publick key error\n");
    return DL_ERR_CONNECT;
  }
  if (SSL_CTX_use_PrivateKey_file(ctx, cert_file, SSL_FILETYPE_PEM) != 1) {
    log_error("Can't load private key from CA_serverfile\n");
    return DL_ERR_CONNECT;
  }
  // Reported, deliberately not fatal: the server may not ask for it.
  if (SSL_CTX_check_private_key(ctx) != 1) {
    log_error("Private key not match\n");
    ERR_clear_error();
  }
  return 0;
}

// Mixes time-seeded rand() output into OpenSSL's generator on every
// connection, as the phone always has; OpenSSL's own seeding stays.
void seed_generator() {
  srand(static_cast<unsigned>(time(nullptr)));
  unsigned char seed[kSeedBytes];
  for (unsigned char &byte : seed) byte = static_cast<unsigned char>(rand() & kLowByte);
  RAND_seed(seed, sizeof seed);
}

// The context of one connection. Returns 0 with |*out| set, or
// DL_ERR_CONNECT (logged).
int make_context(int method, const char *cert_file, const char *ca_dir, int verify,
                 quarry::UniqueSslCtx *out) {
  if (!quarry::tls_method_known(method)) {
    log_error("wrong method\n");
    return DL_ERR_CONNECT;
  }
  quarry::UniqueSslCtx ctx(quarry::tls_context_new(method));
  if (!ctx) {
    log_error("SSL_CTX_new Error\n");
    ERR_clear_error();
    return DL_ERR_CONNECT;
  }
  if (dl_https_set_ssl_cipher(ctx.get()) < 0) {
    log_error("set cipher err\n");
    return DL_ERR_CONNECT;
  }
  // Trust comes only from the hashed directory, never from a CA file.
  if (SSL_CTX_load_verify_locations(ctx.get(), nullptr, ca_dir) != 1) {
    const char *why = ERR_reason_error_string(ERR_get_error());
    libq_log(quarry::kModCommon, quarry::kLogError, "loading CA certificate: %s\n",
             why != nullptr ? why : "(null)");
    ERR_clear_error();
    return DL_ERR_CONNECT;
  }
  if (cert_file != nullptr) {
    int ret = use_client_credentials(ctx.get(), cert_file);
    if (ret != 0) {
      ERR_clear_error();
      return ret;
    }
  }
  SSL_CTX_set_verify_depth(ctx.get(), kVerifyDepth);
  seed_generator();
  // Without verification the context keeps OpenSSL's default: the chain
  // is not checked during the handshake.
  if (verify != 0) SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
  *out = std::move(ctx);
  return 0;
}

// The session on |fd|, non-blocking, with server name indication for a
// host name. Returns 0 with |*out| set, or DL_ERR_CONNECT (logged).
int make_session(SSL_CTX *ctx, int fd, const char *host, quarry::UniqueSsl *out) {
  quarry::UniqueSsl ssl(SSL_new(ctx));
  if (!ssl) {
    log_error("Create ssl error\n");
    ERR_clear_error();
    return DL_ERR_CONNECT;
  }
  int on = 1;
  ioctl(fd, FIONBIO, &on);
  BIO *bio = quarry::tls_socket_bio(fd);
  if (bio == nullptr) {
    log_error("Create ssl error\n");
    return DL_ERR_CONNECT;
  }
  // One BIO for both directions: the session takes the one reference.
  SSL_set_bio(ssl.get(), bio, bio);
  if (host != nullptr && !quarry::tls_host_is_address(host)) {
    if (SSL_ctrl(ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                 const_cast<char *>(host)) == 0) {
      libq_log(quarry::kModCommon, quarry::kLogWarning,
               "Configure server name indication fail\n");
      ERR_clear_error();
    }
  }
  *out = std::move(ssl);
  return 0;
}

int trust_check_failed() {
  log_error("trust check error\n");
  return DL_ERR_CONNECT;
}

// The chain's result and, with |check_host|, the host name. Returns 0 or
// DL_ERR_CONNECT (logged).
int check_peer(SSL *ssl, int check_host, const char *host) {
  long result = SSL_get_verify_result(ssl);
  if (result != X509_V_OK) {
    libq_log(quarry::kModCommon, quarry::kLogError, "Certificate doesn't verify and error is %ld\n",
             result);
    return trust_check_failed();
  }
  quarry::UniqueX509 peer(SSL_get1_peer_certificate(ssl));
  if (!peer) {
    log_error("get peer error\n");
    return trust_check_failed();
  }
  if (check_host == 0 || quarry::tls_host_matches(peer.get(), host)) return 0;
  log_error("Common name and subject alt name doesn't match host name\n");
  peer.reset();
  return trust_check_failed();
}

}  // namespace

extern "C" DL_EXPORT int dl_do_SSL_connect(int fd, const char *cert_file, const char *ca_dir,
                                           int method, int verify, int check_host, const char *host,
                                           SSL **out_ssl, SSL_CTX **out_ctx) {
  if (out_ssl == nullptr || out_ctx == nullptr) {
    log_error("Invaild paramter\n");
    return DL_ERR_CONNECT;
  }
  quarry::UniqueSslCtx ctx;
  int ret = make_context(method, cert_file, ca_dir, verify, &ctx);
  if (ret != 0) return ret;
  quarry::UniqueSsl ssl;
  ret = make_session(ctx.get(), fd, host, &ssl);
  if (ret != 0) return ret;
  ret = quarry::tls_handshake(ssl.get(), verify, quarry::cfg_read(&dl_config::timeout_s));
  if (ret != 0) return ret;
  // Without verification nothing is checked, not even with check_host.
  if (verify != 0) {
    ret = check_peer(ssl.get(), check_host, host);
    if (ret != 0) return ret;
  }
  *out_ssl = ssl.release();
  *out_ctx = ctx.release();
  return 0;
}

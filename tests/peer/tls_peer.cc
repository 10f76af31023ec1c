#include "tests/peer/tls_peer.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

#include "tests/peer/listener.h"

namespace quarry_test {

namespace {

constexpr int kStepTimeoutMs = 15000;
constexpr int kPollSliceMs = 50;
constexpr int kSocketTimeoutS = 15;

SSL_CTX *as_ctx(void *p) { return static_cast<SSL_CTX *>(p); }

bool wait_readable(int fd, const std::atomic<bool> &stop) {
  for (int waited = 0; waited < kStepTimeoutMs && !stop; waited += kPollSliceMs) {
    pollfd pfd = {fd, POLLIN, 0};
    int r = poll(&pfd, 1, kPollSliceMs);
    if (r > 0) return true;
    if (r < 0 && errno != EINTR) return false;
  }
  return false;
}

SSL_CTX *make_context(const TlsPeerConfig &c) {
  SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
  if (ctx == nullptr) return nullptr;
  bool ok = SSL_CTX_use_certificate_chain_file(ctx, c.cert.c_str()) == 1 &&
            SSL_CTX_use_PrivateKey_file(ctx, c.key.c_str(), SSL_FILETYPE_PEM) == 1;
  if (ok && c.min_version != 0) ok = SSL_CTX_set_min_proto_version(ctx, c.min_version) == 1;
  if (ok && c.max_version != 0) ok = SSL_CTX_set_max_proto_version(ctx, c.max_version) == 1;
  if (ok && !c.ciphers.empty()) ok = SSL_CTX_set_cipher_list(ctx, c.ciphers.c_str()) == 1;
  if (ok && !c.client_ca.empty()) {
    ok = SSL_CTX_load_verify_locations(ctx, c.client_ca.c_str(), nullptr) == 1;
    STACK_OF(X509_NAME) *names = SSL_load_client_CA_file(c.client_ca.c_str());
    if (names != nullptr) SSL_CTX_set_client_CA_list(ctx, names);
    int mode = SSL_VERIFY_PEER;
    if (c.require_client_cert) mode |= SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
    // Any certificate is taken; the test reads its subject.
    SSL_CTX_set_verify(ctx, mode, [](int, X509_STORE_CTX *) { return 1; });
  }
  if (!ok) {
    SSL_CTX_free(ctx);
    return nullptr;
  }
  return ctx;
}

}  // namespace

TlsPeer::TlsPeer(TlsPeerConfig config, bool ipv6) : config_(std::move(config)) {
  // The server writes session tickets and alerts to clients that may have
  // gone; that must fail the write, not end the test program.
  signal(SIGPIPE, SIG_IGN);
  ctx_ = make_context(config_);
  listen_fd_ = bind_loopback(SOCK_STREAM, ipv6, &port_);
  if (listen_fd_ >= 0) listen(listen_fd_, 16);
}

TlsPeer::~TlsPeer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (listen_fd_ >= 0) close(listen_fd_);
  SSL_CTX_free(as_ctx(ctx_));
}

void TlsPeer::add(Script script) { scripts_.push_back(std::move(script)); }

void TlsPeer::start() { thread_ = std::thread(&TlsPeer::run, this); }

bool TlsPeer::wait(int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done_) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

size_t TlsPeer::accepted() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_.size();
}

TlsConnection TlsPeer::connection(size_t n) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return n < connections_.size() ? connections_[n] : TlsConnection();
}

void TlsPeer::run() {
  for (size_t i = 0; i < scripts_.size() && !stop_ && ctx_ != nullptr; ++i) {
    if (!wait_readable(listen_fd_, stop_)) break;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) break;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      connections_.emplace_back();
    }
    play(fd, scripts_[i], i);
  }
  done_ = true;
}

void TlsPeer::play(int fd, const Script &script, size_t index) {
  timeval tv = {kSocketTimeoutS, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  SSL *ssl = SSL_new(as_ctx(ctx_));
  SSL_set_fd(ssl, fd);
  // A client that never says hello must not hold the peer past its end.
  bool ok = wait_readable(fd, stop_) && SSL_accept(ssl) == 1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    TlsConnection &c = connections_[index];
    c.handshake_ok = ok;
    const char *name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    c.server_name = name != nullptr ? name : "";
    if (ok) {
      c.version = SSL_get_version(ssl);
      X509 *peer = SSL_get1_peer_certificate(ssl);
      if (peer != nullptr) {
        char subject[256];
        X509_NAME_oneline(X509_get_subject_name(peer), subject, sizeof subject);
        c.client_subject = subject;
        X509_free(peer);
      }
    }
  }
  ScriptEnd end = ScriptEnd::kClosed;
  if (ok) {
    PeerIo io;
    io.read_some = [&](std::string *got) {
      if (SSL_pending(ssl) == 0 && !wait_readable(fd, stop_)) return false;
      char buf[4096];
      int n = SSL_read(ssl, buf, sizeof buf);
      if (n <= 0) return false;
      got->append(buf, static_cast<size_t>(n));
      std::lock_guard<std::mutex> lock(mutex_);
      connections_[index].received.append(buf, static_cast<size_t>(n));
      return true;
    };
    io.send = [&](const std::string &data) {
      SSL_write(ssl, data.data(), static_cast<int>(data.size()));
    };
    end = play_script(script, io, stop_);
  }
  if (end == ScriptEnd::kReset) {
    linger lg = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
  }
  bool goodbye = end != ScriptEnd::kReset;
  if (ok && goodbye && config_.close_notify) SSL_shutdown(ssl);
  SSL_free(ssl);
  ERR_clear_error();
  close(fd);
}

}  // namespace quarry_test

// A scripted TLS server: each accepted connection does the server side of
// a handshake with the configured certificate and versions, then plays the
// next script over TLS. It records, per connection, whether the handshake
// worked, the version, the server name the client sent and the subject of
// the client's certificate.
#ifndef QUARRY_TESTS_PEER_TLS_PEER_H
#define QUARRY_TESTS_PEER_TLS_PEER_H

#include <stdint.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/peer/scripted_peer.h"

namespace quarry_test {

struct TlsPeerConfig {
  std::string cert;  // PEM certificate (chain) file
  std::string key;   // PEM key file
  int min_version = 0;  // TLS1_VERSION ... TLS1_3_VERSION; 0: OpenSSL's default
  int max_version = 0;
  std::string ciphers;    // cipher list, e.g. "DEFAULT:@SECLEVEL=0"; empty: default
  std::string client_ca;  // when set, a client certificate is asked for
  bool require_client_cert = false;
  // false: a script's end closes the socket without a close_notify alert.
  bool close_notify = true;
};

struct TlsConnection {
  bool handshake_ok = false;
  std::string version;         // "TLSv1.2"
  std::string server_name;     // SNI, "" when none was sent
  std::string client_subject;  // one-line subject, "" without a certificate
  std::string received;        // application bytes read
};

class TlsPeer {
 public:
  explicit TlsPeer(TlsPeerConfig config, bool ipv6 = false);
  ~TlsPeer();
  TlsPeer(const TlsPeer &) = delete;
  TlsPeer &operator=(const TlsPeer &) = delete;

  // Whether the server context could be made from the configuration.
  bool ok() const { return ctx_ != nullptr && listen_fd_ >= 0; }
  // Adds the script played after the handshake of the next connection.
  void add(Script script);
  void start();
  // Waits until every connection has been played (or |timeout_ms| passed).
  bool wait(int timeout_ms = 15000);

  uint16_t port() const { return port_; }
  size_t accepted() const;
  TlsConnection connection(size_t n) const;

 private:
  void run();
  void play(int fd, const Script &script, size_t index);

  TlsPeerConfig config_;
  void *ctx_ = nullptr;  // SSL_CTX
  int listen_fd_ = -1;
  uint16_t port_ = 0;
  std::vector<Script> scripts_;
  std::vector<TlsConnection> connections_;
  mutable std::mutex mutex_;
  std::thread thread_;
  std::atomic<bool> done_{false};
  std::atomic<bool> stop_{false};
};

}  // namespace quarry_test

#endif  // QUARRY_TESTS_PEER_TLS_PEER_H

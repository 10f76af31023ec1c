// A scripted TFTP peer: a loopback UDP socket whose conversation a test
// writes as a function run on the peer's own thread, and the packets of
// RFC 1350 and RFC 2347 spelled out as bytes.
#ifndef QUARRY_TESTS_TFTP_TFTP_PEER_H
#define QUARRY_TESTS_TFTP_TFTP_PEER_H

#include <stdint.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quarry_test {

class TftpPeer {
 public:
  // Binds 127.0.0.1 (or ::1) on a free port.
  explicit TftpPeer(bool ipv6 = false);
  ~TftpPeer();
  TftpPeer(const TftpPeer &) = delete;
  TftpPeer &operator=(const TftpPeer &) = delete;

  uint16_t port() const { return port_; }
  // Runs |script| on the peer's thread.
  void run(std::function<void(TftpPeer &)> script);
  // Waits for the script to end; false when it is still running.
  bool wait(int timeout_ms = 20000);

  // For the script: the next datagram (recorded), or false after
  // |timeout_ms| without one. Its sender becomes the one send() answers.
  bool recv(std::string *out, int timeout_ms = 5000);
  // Receives one datagram and records it; "" when none came.
  std::string recv_one(int timeout_ms = 5000);
  void send(const std::string &pkt);
  // Goes on from a fresh socket on another port, as a server's transfer
  // port; returns the new port.
  uint16_t switch_port();
  // Receives until |quiet_ms| pass without a datagram; returns how many.
  int drain(int quiet_ms);
  uint16_t sender_port() const;

  // Every datagram received, in order.
  std::vector<std::string> received() const;

 private:
  int fd_ = -1;
  int first_fd_ = -1;
  bool ipv6_ = false;
  uint16_t port_ = 0;
  sockaddr_storage from_ = {};
  socklen_t from_len_ = 0;
  std::vector<std::string> received_;
  mutable std::mutex mutex_;
  std::thread thread_;
  std::atomic<bool> done_{false};
};

// Packets, big-endian fields.
std::string rrq(const std::string &name);
std::string wrq(const std::string &name);
std::string data_pkt(uint16_t block, const std::string &payload);
std::string ack_pkt(uint16_t block);
std::string oack_pkt(const std::vector<std::pair<std::string, std::string>> &options);
std::string error_pkt(uint16_t code, const std::string &text);
// The option-refusing ERROR the client sends: code 8, "err blksize".
std::string blksize_error_pkt();

// |n| bytes of a repeating, position-dependent pattern.
std::string pattern(size_t n, unsigned seed = 0);

}  // namespace quarry_test

#endif  // QUARRY_TESTS_TFTP_TFTP_PEER_H

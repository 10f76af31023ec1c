// Scripted peers: small loopback servers that play a fixed conversation
// and record what the library sent. Each accepted TCP connection plays the
// next script in the order added; the UDP peer plays one script.
#ifndef QUARRY_TESTS_PEER_SCRIPTED_PEER_H
#define QUARRY_TESTS_PEER_SCRIPTED_PEER_H

#include <stdint.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quarry_test {

struct Step {
  enum Kind {
    kReadUntil,  // read until the bytes received hold |data|
    kReadBytes,  // read |count| more bytes
    kReadToEnd,  // read until the library closes its side
    kSend,       // send |data|
    kSleep,      // wait |count| milliseconds
    kClose,      // close the connection
    kReset,      // close with a TCP reset
    kSwitchPort, // UDP: go on from a fresh socket on a new port
  };
  Kind kind;
  std::string data;
  size_t count = 0;
};

Step read_until(const std::string &marker);
Step read_bytes(size_t count);
Step read_to_end();
Step send_bytes(const std::string &data);
Step sleep_ms(size_t ms);
Step close_conn();
Step reset_conn();
Step switch_port();

using Script = std::vector<Step>;

// How one connection reads and sends while a script plays: |read_some|
// reads once and appends to |*got|, false at the end of the stream or on a
// time-out; |send| writes all of |data|.
struct PeerIo {
  std::function<bool(std::string *got)> read_some;
  std::function<void(const std::string &data)> send;
};

// How a script left its connection.
enum class ScriptEnd { kDone, kClosed, kReset };

// Plays the steps of |script| on one connection (kSwitchPort is ignored).
ScriptEnd play_script(const Script &script, const PeerIo &io, const std::atomic<bool> &stop);

class TcpPeer {
 public:
  // Listens on 127.0.0.1 (or ::1) on a free port.
  explicit TcpPeer(bool ipv6 = false);
  ~TcpPeer();
  TcpPeer(const TcpPeer &) = delete;
  TcpPeer &operator=(const TcpPeer &) = delete;

  // Adds the script of the next connection; call before start().
  void add(Script script);
  void start();
  // Waits until every script has been played (or |timeout_ms| passed).
  bool wait(int timeout_ms = 10000);

  uint16_t port() const { return port_; }
  // Bytes received on connection |n| (in accept order).
  std::string received(size_t n = 0) const;
  size_t connections() const;

 private:
  void run();
  void play(int fd, const Script &script, size_t index);

  int listen_fd_ = -1;
  uint16_t port_ = 0;
  std::vector<Script> scripts_;
  std::vector<std::string> received_;
  mutable std::mutex mutex_;
  std::thread thread_;
  std::atomic<bool> done_{false};
  std::atomic<bool> stop_{false};
};

class UdpPeer {
 public:
  explicit UdpPeer(bool ipv6 = false);
  ~UdpPeer();
  UdpPeer(const UdpPeer &) = delete;
  UdpPeer &operator=(const UdpPeer &) = delete;

  // kReadBytes(0) receives one datagram; kSend answers the last sender.
  void set_script(Script script);
  void start();
  bool wait(int timeout_ms = 10000);

  uint16_t port() const { return port_; }
  // Datagrams received, in order.
  std::vector<std::string> datagrams() const;

 private:
  void run();

  int fd_ = -1;
  bool ipv6_ = false;
  uint16_t port_ = 0;
  Script script_;
  std::vector<std::string> datagrams_;
  mutable std::mutex mutex_;
  std::thread thread_;
  std::atomic<bool> done_{false};
  std::atomic<bool> stop_{false};
};

}  // namespace quarry_test

#endif  // QUARRY_TESTS_PEER_SCRIPTED_PEER_H

// Scripted peers: small loopback servers that play a fixed conversation
// and record what the library sent. Each accepted TCP connection plays the
// next script in the order added; the UDP peer plays one script, of steps
// or of its own calls.
#ifndef QUARRY_TESTS_PEER_SCRIPTED_PEER_H
#define QUARRY_TESTS_PEER_SCRIPTED_PEER_H

#include <stdint.h>
#include <sys/socket.h>

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

// A UDP peer on 127.0.0.1 (or ::1) and a free port. Its conversation is
// either a step script (set_script, start) or a function the test writes,
// run on the peer's own thread (run), that calls recv and send.
class UdpPeer {
 public:
  explicit UdpPeer(bool ipv6 = false);
  // Ends a function still serving at its next recv, then joins it.
  ~UdpPeer();
  UdpPeer(const UdpPeer &) = delete;
  UdpPeer &operator=(const UdpPeer &) = delete;

  // kReadBytes(0) receives one datagram; kSend answers the last sender.
  void set_script(Script script);
  void start();
  // Runs |script| on the peer's thread.
  void run(std::function<void(UdpPeer &)> script);
  // Waits for the script to end; false when it is still running.
  bool wait(int timeout_ms = 20000);
  // True once the peer is being destroyed: a function that serves until
  // then loops on it.
  bool stopping() const { return stop_; }

  uint16_t port() const { return port_; }

  // For scripts: the next datagram (recorded), or false after |timeout_ms|
  // without one. Its sender becomes the one send() answers.
  bool recv(std::string *out, int timeout_ms = 5000);
  // Receives one datagram and records it; "" when none came.
  std::string recv_one(int timeout_ms = 5000);
  void send(const std::string &data);
  // Goes on from a fresh socket on another port, as a server's transfer
  // port; returns the new port (0 when none could be bound).
  uint16_t switch_port();
  // Receives until |quiet_ms| pass without a datagram; returns how many.
  int drain(int quiet_ms);
  // The source port of the last datagram received.
  uint16_t sender_port() const;

  // Every datagram received, in order, and the source port of each.
  std::vector<std::string> received() const;
  std::vector<std::string> datagrams() const { return received(); }
  std::vector<uint16_t> sender_ports() const;

 private:
  void play_steps();

  int fd_ = -1;
  int first_fd_ = -1;
  bool ipv6_ = false;
  uint16_t port_ = 0;
  Script script_;
  sockaddr_storage from_ = {};
  socklen_t from_len_ = 0;
  std::vector<std::string> received_;
  std::vector<uint16_t> sender_ports_;
  mutable std::mutex mutex_;
  std::thread thread_;
  std::atomic<bool> done_{false};
  std::atomic<bool> stop_{false};
};

// Waits up to |timeout_ms| for |flag| to be set; false when it was not.
bool wait_for_flag(const std::atomic<bool> &flag, int timeout_ms);

}  // namespace quarry_test

#endif  // QUARRY_TESTS_PEER_SCRIPTED_PEER_H

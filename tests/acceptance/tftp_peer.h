// A scripted TFTP server on a loopback UDP port: the script runs on its own
// thread, answers the client packet by packet and records what it received.
#ifndef QUARRY_TESTS_ACCEPTANCE_TFTP_PEER_H
#define QUARRY_TESTS_ACCEPTANCE_TFTP_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tftp_peer {

inline std::string u16(unsigned v) {
  std::string s;
  s += static_cast<char>((v >> 8) & 0xff);
  s += static_cast<char>(v & 0xff);
  return s;
}

inline std::string z(const std::string &text) { return text + std::string(1, '\0'); }

inline std::string request(unsigned opcode, const std::string &name) {
  return u16(opcode) + z(name) + z("octet") + z("blksize") + z("1432");
}
inline std::string data(unsigned block, const std::string &payload) {
  return u16(3) + u16(block) + payload;
}
inline std::string ack(unsigned block) { return u16(4) + u16(block); }
inline std::string error(unsigned code, const std::string &text) {
  return u16(5) + u16(code) + z(text);
}
inline std::string oack(const std::vector<std::string> &pairs) {
  std::string s = u16(6);
  for (const std::string &p : pairs) s += z(p);
  return s;
}
// The only error packet the client sends: code 8, "err blksize".
inline std::string blksize_error() { return error(8, "err blksize"); }

inline unsigned opcode(const std::string &pkt) {
  return pkt.size() < 2 ? 0u : (static_cast<uint8_t>(pkt[0]) << 8) | static_cast<uint8_t>(pkt[1]);
}
inline unsigned block_of(const std::string &pkt) {
  return pkt.size() < 4 ? 0u : (static_cast<uint8_t>(pkt[2]) << 8) | static_cast<uint8_t>(pkt[3]);
}

class Peer {
 public:
  Peer() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a));
    socklen_t len = sizeof(a);
    getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len);
    port_ = ntohs(a.sin_port);
  }
  ~Peer() {
    join();
    close(fd_);
  }
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  int port() const { return port_; }
  void run(std::function<void(Peer &)> script) {
    thread_ = std::thread([this, script] { script(*this); });
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }

  // Waits up to |ms| for a datagram; records it and its sender.
  bool recv(std::string *pkt, int ms = 3000) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return false;
    char buf[2048];
    sockaddr_storage from{};
    socklen_t len = sizeof(from);
    ssize_t n = recvfrom(fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &len);
    if (n < 0) return false;
    client_ = from;
    client_len_ = len;
    pkt->assign(buf, static_cast<size_t>(n));
    received.push_back(*pkt);
    return true;
  }
  std::string recv_or_empty(int ms = 3000) {
    std::string pkt;
    return recv(&pkt, ms) ? pkt : std::string();
  }
  void send(const std::string &pkt) {
    sendto(fd_, pkt.data(), pkt.size(), 0, reinterpret_cast<sockaddr *>(&client_), client_len_);
  }

  std::vector<std::string> received;

 private:
  int fd_ = -1;
  int port_ = 0;
  sockaddr_storage client_{};
  socklen_t client_len_ = 0;
  std::thread thread_;
};

// Serves |content| for one read request in |blksize| blocks (0: no OACK,
// blocks of 512), lock-step, and stops after the last ACK.
inline void serve(Peer &p, const std::string &content, unsigned blksize = 0) {
  std::string pkt;
  if (!p.recv(&pkt)) return;
  size_t size = 512;
  if (blksize != 0) {
    size = blksize;
    p.send(oack({"blksize", std::to_string(blksize)}));
    if (!p.recv(&pkt)) return;
  }
  unsigned block = 1;
  for (size_t off = 0;; off += size, block = (block + 1) & 0xffff) {
    std::string part = off < content.size() ? content.substr(off, size) : std::string();
    p.send(data(block, part));
    if (!p.recv(&pkt)) return;
    if (part.size() < size) return;
  }
}

// Takes one write request and the DATA that follows, acknowledging each
// block; |oack_blksize| 0 answers the request with ACK 0.
inline std::string take_upload(Peer &p, unsigned oack_blksize = 0) {
  std::string pkt;
  if (!p.recv(&pkt)) return "";
  p.send(oack_blksize ? oack({"blksize", std::to_string(oack_blksize)}) : ack(0));
  size_t size = oack_blksize ? oack_blksize : 512;
  std::string content;
  while (p.recv(&pkt, 500)) {
    if (opcode(pkt) != 3) continue;
    content += pkt.substr(4);
    p.send(ack(block_of(pkt)));
    if (pkt.size() - 4 < size) break;
  }
  return content;
}

}  // namespace tftp_peer

#endif  // QUARRY_TESTS_ACCEPTANCE_TFTP_PEER_H

#include "tests/tftp/tftp_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <chrono>

namespace quarry_test {

namespace {

constexpr size_t kMaxDatagram = 65536;

int bind_udp(bool ipv6, uint16_t *port) {
  int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_storage ss = {};
  socklen_t len;
  if (ipv6) {
    auto *sin6 = reinterpret_cast<sockaddr_in6 *>(&ss);
    sin6->sin6_family = AF_INET6;
    sin6->sin6_addr = in6addr_loopback;
    len = sizeof(*sin6);
  } else {
    auto *sin = reinterpret_cast<sockaddr_in *>(&ss);
    sin->sin_family = AF_INET;
    sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    len = sizeof(*sin);
  }
  if (bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len) != 0) {
    close(fd);
    return -1;
  }
  *port = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port
                     : reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
  return fd;
}

std::string be16(uint16_t v) {
  return std::string{static_cast<char>(v >> 8), static_cast<char>(v & 0xff)};
}

std::string request(uint16_t opcode, const std::string &name) {
  return be16(opcode) + name + std::string("\0octet\0blksize\0" "1432\0", 20);
}

}  // namespace

TftpPeer::TftpPeer(bool ipv6) : ipv6_(ipv6) {
  fd_ = bind_udp(ipv6, &port_);
  first_fd_ = fd_;
}

TftpPeer::~TftpPeer() {
  if (thread_.joinable()) thread_.join();
  if (fd_ >= 0 && fd_ != first_fd_) close(fd_);
  if (first_fd_ >= 0) close(first_fd_);
}

void TftpPeer::run(std::function<void(TftpPeer &)> script) {
  thread_ = std::thread([this, script]() {
    script(*this);
    done_ = true;
  });
}

bool TftpPeer::wait(int timeout_ms) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done_ && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return done_;
}

bool TftpPeer::recv(std::string *out, int timeout_ms) {
  pollfd p = {fd_, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return false;
  std::string buf(kMaxDatagram, '\0');
  sockaddr_storage from;
  socklen_t from_len = sizeof(from);
  ssize_t n = recvfrom(fd_, &buf[0], buf.size(), 0, reinterpret_cast<sockaddr *>(&from), &from_len);
  if (n < 0) return false;
  buf.resize(static_cast<size_t>(n));
  {
    std::lock_guard<std::mutex> lock(mutex_);
    from_ = from;
    from_len_ = from_len;
    received_.push_back(buf);
  }
  *out = buf;
  return true;
}

std::string TftpPeer::recv_one(int timeout_ms) {
  std::string out;
  return recv(&out, timeout_ms) ? out : std::string();
}

void TftpPeer::send(const std::string &pkt) {
  sockaddr_storage to;
  socklen_t len;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    to = from_;
    len = from_len_;
  }
  if (len == 0) return;
  sendto(fd_, pkt.data(), pkt.size(), 0, reinterpret_cast<sockaddr *>(&to), len);
}

uint16_t TftpPeer::switch_port() {
  uint16_t port = 0;
  int fresh = bind_udp(ipv6_, &port);
  if (fresh < 0) return 0;
  if (fd_ != first_fd_) close(fd_);
  fd_ = fresh;
  return port;
}

int TftpPeer::drain(int quiet_ms) {
  int count = 0;
  std::string ignored;
  while (recv(&ignored, quiet_ms)) ++count;
  return count;
}

uint16_t TftpPeer::sender_port() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (from_.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6 *>(&from_)->sin6_port);
  }
  return ntohs(reinterpret_cast<const sockaddr_in *>(&from_)->sin_port);
}

std::vector<std::string> TftpPeer::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

std::string rrq(const std::string &name) { return request(1, name); }
std::string wrq(const std::string &name) { return request(2, name); }

std::string data_pkt(uint16_t block, const std::string &payload) {
  return be16(3) + be16(block) + payload;
}

std::string ack_pkt(uint16_t block) { return be16(4) + be16(block); }

std::string oack_pkt(const std::vector<std::pair<std::string, std::string>> &options) {
  std::string pkt = be16(6);
  for (const auto &option : options) {
    pkt += option.first;
    pkt += '\0';
    pkt += option.second;
    pkt += '\0';
  }
  return pkt;
}

std::string error_pkt(uint16_t code, const std::string &text) {
  return be16(5) + be16(code) + text + std::string(1, '\0');
}

std::string blksize_error_pkt() { return error_pkt(8, "err blksize"); }

std::string pattern(size_t n, unsigned seed) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) {
    out[i] = static_cast<char>((i * 31 + seed * 7 + (i >> 8)) & 0xff);
  }
  return out;
}

}  // namespace quarry_test

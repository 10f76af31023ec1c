// The UDP peer of scripted_peer.h: one loopback datagram socket that
// records what arrives, with its sender, and answers the last sender.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "tests/peer/listener.h"
#include "tests/peer/scripted_peer.h"

namespace quarry_test {

namespace {

// How long a step waits for the library's datagram.
constexpr int kStepTimeoutMs = 15000;
// How often a waiting receive looks whether the peer is being destroyed.
constexpr int kPollSliceMs = 20;
constexpr size_t kMaxDatagram = 65536;

uint16_t port_of(const sockaddr_storage &ss) {
  if (ss.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6 *>(&ss)->sin6_port);
  return ntohs(reinterpret_cast<const sockaddr_in *>(&ss)->sin_port);
}

}  // namespace

UdpPeer::UdpPeer(bool ipv6) : ipv6_(ipv6) {
  fd_ = bind_loopback(SOCK_DGRAM, ipv6, &port_);
  first_fd_ = fd_;
}

UdpPeer::~UdpPeer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (fd_ >= 0 && fd_ != first_fd_) close(fd_);
  if (first_fd_ >= 0) close(first_fd_);
}

void UdpPeer::set_script(Script script) { script_ = std::move(script); }

void UdpPeer::start() {
  run([](UdpPeer &peer) { peer.play_steps(); });
}

void UdpPeer::run(std::function<void(UdpPeer &)> script) {
  thread_ = std::thread([this, script]() {
    script(*this);
    done_ = true;
  });
}

bool UdpPeer::wait(int timeout_ms) { return wait_for_flag(done_, timeout_ms); }

bool UdpPeer::recv(std::string *out, int timeout_ms) {
  if (fd_ < 0) return false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (stop_) return false;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left < 0) return false;
    pollfd p = {fd_, POLLIN, 0};
    int ready = poll(&p, 1, static_cast<int>(std::min<long long>(left, kPollSliceMs)));
    if (ready > 0) break;
    if (ready < 0 && errno != EINTR) return false;
  }
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
    sender_ports_.push_back(port_of(from));
  }
  *out = buf;
  return true;
}

std::string UdpPeer::recv_one(int timeout_ms) {
  std::string out;
  return recv(&out, timeout_ms) ? out : std::string();
}

void UdpPeer::send(const std::string &data) {
  sockaddr_storage to;
  socklen_t len;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    to = from_;
    len = from_len_;
  }
  if (len == 0) return;
  sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to), len);
}

uint16_t UdpPeer::switch_port() {
  uint16_t port = 0;
  int fresh = bind_loopback(SOCK_DGRAM, ipv6_, &port);
  if (fresh < 0) return 0;
  if (fd_ != first_fd_) close(fd_);
  fd_ = fresh;
  return port;
}

int UdpPeer::drain(int quiet_ms) {
  int count = 0;
  std::string ignored;
  while (recv(&ignored, quiet_ms)) ++count;
  return count;
}

uint16_t UdpPeer::sender_port() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return port_of(from_);
}

std::vector<std::string> UdpPeer::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

std::vector<uint16_t> UdpPeer::sender_ports() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sender_ports_;
}

void UdpPeer::play_steps() {
  std::string ignored;
  for (const Step &step : script_) {
    if (stop_) break;
    if (step.kind == Step::kReadBytes || step.kind == Step::kReadUntil) {
      if (!recv(&ignored, kStepTimeoutMs)) break;
    } else if (step.kind == Step::kSend) {
      send(step.data);
    } else if (step.kind == Step::kSleep) {
      std::this_thread::sleep_for(std::chrono::milliseconds(step.count));
    } else if (step.kind == Step::kSwitchPort) {
      if (switch_port() == 0) break;
    }
  }
}

}  // namespace quarry_test

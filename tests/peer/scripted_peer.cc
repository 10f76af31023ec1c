#include "tests/peer/scripted_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "tests/peer/listener.h"

namespace quarry_test {

namespace {

// How long a peer waits for the library before giving up on a step.
constexpr int kStepTimeoutMs = 15000;
constexpr int kPollSliceMs = 50;

Step make(Step::Kind kind, std::string data = {}, size_t count = 0) {
  Step step;
  step.kind = kind;
  step.data = std::move(data);
  step.count = count;
  return step;
}

// Waits for |fd| to become readable; false on time-out or stop.
bool wait_readable(int fd, const std::atomic<bool> &stop, int timeout_ms = kStepTimeoutMs) {
  for (int waited = 0; waited < timeout_ms && !stop; waited += kPollSliceMs) {
    pollfd pfd = {fd, POLLIN, 0};
    int r = poll(&pfd, 1, kPollSliceMs);
    if (r > 0) return true;
    if (r < 0 && errno != EINTR) return false;
  }
  return false;
}

}  // namespace

bool wait_for_flag(const std::atomic<bool> &flag, int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!flag) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

Step read_until(const std::string &marker) { return make(Step::kReadUntil, marker); }
Step read_bytes(size_t count) { return make(Step::kReadBytes, {}, count); }
Step read_to_end() { return make(Step::kReadToEnd); }
Step send_bytes(const std::string &data) { return make(Step::kSend, data); }
Step sleep_ms(size_t ms) { return make(Step::kSleep, {}, ms); }
Step close_conn() { return make(Step::kClose); }
Step reset_conn() { return make(Step::kReset); }
Step switch_port() { return make(Step::kSwitchPort); }

// ---------------------------------------------------------------- TCP ----

TcpPeer::TcpPeer(bool ipv6) {
  listen_fd_ = bind_loopback(SOCK_STREAM, ipv6, &port_);
  if (listen_fd_ >= 0) listen(listen_fd_, 16);
}

TcpPeer::~TcpPeer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (listen_fd_ >= 0) close(listen_fd_);
}

void TcpPeer::add(Script script) {
  scripts_.push_back(std::move(script));
  std::lock_guard<std::mutex> lock(mutex_);
  received_.emplace_back();
}

void TcpPeer::start() { thread_ = std::thread(&TcpPeer::run, this); }

bool TcpPeer::wait(int timeout_ms) { return wait_for_flag(done_, timeout_ms); }

std::string TcpPeer::received(size_t n) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return n < received_.size() ? received_[n] : std::string();
}

size_t TcpPeer::connections() const { return scripts_.size(); }

void TcpPeer::run() {
  for (size_t i = 0; i < scripts_.size() && !stop_; ++i) {
    if (!wait_readable(listen_fd_, stop_)) break;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) break;
    play(fd, scripts_[i], i);
  }
  done_ = true;
}

void TcpPeer::play(int fd, const Script &script, size_t index) {
  PeerIo io;
  io.read_some = [&](std::string *got) {
    if (!wait_readable(fd, stop_)) return false;
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n <= 0) return false;
    got->append(buf, static_cast<size_t>(n));
    std::lock_guard<std::mutex> lock(mutex_);
    received_[index].append(buf, static_cast<size_t>(n));
    return true;
  };
  io.send = [&](const std::string &data) { send(fd, data.data(), data.size(), MSG_NOSIGNAL); };
  if (play_script(script, io, stop_) == ScriptEnd::kReset) {
    linger lg = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
  }
  close(fd);
}

ScriptEnd play_script(const Script &script, const PeerIo &io, const std::atomic<bool> &stop) {
  std::string got;
  size_t consumed = 0;
  for (const Step &step : script) {
    if (stop) break;
    switch (step.kind) {
      case Step::kReadUntil: {
        while (got.find(step.data, consumed) == std::string::npos) {
          if (!io.read_some(&got)) break;
        }
        size_t at = got.find(step.data, consumed);
        consumed = at == std::string::npos ? got.size() : at + step.data.size();
        break;
      }
      case Step::kReadBytes:
        while (got.size() < consumed + step.count) {
          if (!io.read_some(&got)) break;
        }
        consumed = std::min(got.size(), consumed + step.count);
        break;
      case Step::kReadToEnd:
        while (io.read_some(&got)) {
        }
        consumed = got.size();
        break;
      case Step::kSend:
        io.send(step.data);
        break;
      case Step::kSleep:
        std::this_thread::sleep_for(std::chrono::milliseconds(step.count));
        break;
      case Step::kClose:
        return ScriptEnd::kClosed;
      case Step::kReset:
        return ScriptEnd::kReset;
      case Step::kSwitchPort:
        break;
    }
  }
  return ScriptEnd::kDone;
}

}  // namespace quarry_test

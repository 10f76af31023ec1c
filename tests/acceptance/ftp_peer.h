// A scripted FTP server on loopback for the FTP acceptance suites: one
// control session on its own thread, a passive data listener, default
// replies for every command a client sends and per-command overrides.
#ifndef QUARRY_TESTS_ACCEPTANCE_FTP_PEER_H
#define QUARRY_TESTS_ACCEPTANCE_FTP_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quarry.h"

namespace acceptance {

class FtpPeer {
 public:
  // |data_host| is where the passive listener binds and what PASV names.
  explicit FtpPeer(const std::string &data_host = "127.0.0.1");
  ~FtpPeer();
  FtpPeer(const FtpPeer &) = delete;
  FtpPeer &operator=(const FtpPeer &) = delete;

  // Set these before start().
  std::string greeting = "220 test ready\r\n";
  std::string retr_data;  // what RETR sends on the data connection
  // Replies used once each, in order, before the default of the verb.
  void queue(const std::string &verb, const std::string &reply);

  void start();
  // Waits for the session to end (the client closed or QUIT) and returns.
  void finish();

  uint16_t port() const { return ctl_port_; }
  uint16_t data_port() const { return data_port_; }
  // Command lines received, without "\r\n" (valid after finish()).
  std::vector<std::string> commands() const;
  // Bytes received on the data connection for STOR or APPE.
  std::string stored() const;

 private:
  void run();
  std::string reply_for(const std::string &verb, const std::string &line, int ctl);

  std::string data_host_;
  int ctl_listen_ = -1;
  int data_listen_ = -1;
  uint16_t ctl_port_ = 0;
  uint16_t data_port_ = 0;
  std::thread thread_;
  mutable std::mutex mu_;
  std::vector<std::string> commands_;
  std::string stored_;
  std::map<std::string, std::deque<std::string>> queued_;
};

}  // namespace acceptance

namespace acceptance {

// The settings every FTP suite starts from, written under cfg_lock: 1 s
// time-outs, IPv4, a 10 MiB limit. Fields left 0 keep their value.
struct FtpSettings {
  uint16_t timeout_s = 1;
  uint16_t ipv6 = 0;
  uint32_t max_file_size = 10 * 1024 * 1024;
};
inline void apply_ftp_settings(const FtpSettings &s) {
  dl_config_init();
  pthread_mutex_lock(&g_dl_cfg.cfg_lock);
  g_dl_cfg.timeout_s = s.timeout_s;
  g_dl_cfg.ipv6_enable = s.ipv6;
  g_dl_cfg.max_file_size = s.max_file_size;
  pthread_mutex_unlock(&g_dl_cfg.cfg_lock);
}
}  // namespace acceptance

// ---- implementation (header-only: each suite is one file) ----


namespace acceptance {
namespace ftp_peer_detail {

constexpr int kPeerWaitMs = 3000;

inline int listen_on(const std::string &host, uint16_t *port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  inet_pton(AF_INET, host.c_str(), &sa.sin_addr);
  if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0 || listen(fd, 4) != 0) {
    close(fd);
    return -1;
  }
  socklen_t len = sizeof(sa);
  getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
  *port = ntohs(sa.sin_port);
  return fd;
}

inline bool readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, kPeerWaitMs) == 1;
}

inline int accept_within(int listener) {
  if (!readable(listener)) return -1;
  return accept(listener, nullptr, nullptr);
}

inline void send_text(int fd, const std::string &text) {
  size_t at = 0;
  while (at < text.size()) {
    ssize_t n = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
    if (n <= 0) return;
    at += static_cast<size_t>(n);
  }
}

// One "\r\n"-ended line, or false at the end of the session.
inline bool read_line(int fd, std::string *line) {
  line->clear();
  char c;
  while (readable(fd) && recv(fd, &c, 1, 0) == 1) {
    line->push_back(c);
    if (line->size() >= 2 && line->compare(line->size() - 2, 2, "\r\n") == 0) {
      line->resize(line->size() - 2);
      return true;
    }
  }
  return false;
}

}  // namespace ftp_peer_detail
using namespace ftp_peer_detail;

inline FtpPeer::FtpPeer(const std::string &data_host) : data_host_(data_host) {
  ctl_listen_ = listen_on("127.0.0.1", &ctl_port_);
  data_listen_ = listen_on(data_host_, &data_port_);
}

inline FtpPeer::~FtpPeer() {
  finish();
  if (ctl_listen_ >= 0) close(ctl_listen_);
  if (data_listen_ >= 0) close(data_listen_);
}

inline void FtpPeer::queue(const std::string &verb, const std::string &reply) {
  queued_[verb].push_back(reply);
}

inline void FtpPeer::start() { thread_ = std::thread(&FtpPeer::run, this); }

inline void FtpPeer::finish() {
  if (thread_.joinable()) thread_.join();
}

inline std::vector<std::string> FtpPeer::commands() const {
  std::lock_guard<std::mutex> lock(mu_);
  return commands_;
}

inline std::string FtpPeer::stored() const {
  std::lock_guard<std::mutex> lock(mu_);
  return stored_;
}

inline std::string FtpPeer::reply_for(const std::string &verb, const std::string &line, int ctl) {
  auto q = queued_.find(verb);
  if (q != queued_.end() && !q->second.empty()) {
    std::string r = q->second.front();
    q->second.pop_front();
    return r;
  }
  (void)line;
  (void)ctl;
  if (verb == "USER") return "331 password please\r\n";
  if (verb == "PASS") return "230 logged in\r\n";
  if (verb == "TYPE") return "200 type set\r\n";
  if (verb == "EPSV") return "229 Entering Extended Passive Mode (|||" + std::to_string(data_port_) + "|)\r\n";
  if (verb == "PASV") {
    std::string addr = data_host_;
    for (char &c : addr) c = c == '.' ? ',' : c;
    return "227 Entering Passive Mode (" + addr + "," + std::to_string(data_port_ / 256) + "," +
           std::to_string(data_port_ % 256) + ").\r\n";
  }
  if (verb == "SIZE") return "213 " + std::to_string(retr_data.size()) + "\r\n";
  if (verb == "RETR" || verb == "STOR" || verb == "APPE") return "150 opening data\r\n";
  if (verb == "QUIT") return "221 bye\r\n";
  return "500 unknown\r\n";
}

inline void FtpPeer::run() {
  int ctl = accept_within(ctl_listen_);
  if (ctl < 0) return;
  send_text(ctl, greeting);
  std::string line;
  while (read_line(ctl, &line)) {
    std::string verb = line.substr(0, line.find(' '));
    {
      std::lock_guard<std::mutex> lock(mu_);
      commands_.push_back(line);
    }
    std::string reply = reply_for(verb, line, ctl);
    send_text(ctl, reply);
    bool opened = reply.compare(0, 3, "150") == 0 || reply.compare(0, 3, "125") == 0;
    if (opened && verb == "RETR") {
      int data = accept_within(data_listen_);
      if (data >= 0) {
        send_text(data, retr_data);
        close(data);
      }
    } else if (opened) {
      int data = accept_within(data_listen_);
      if (data >= 0) {
        char buf[4096];
        ssize_t n;
        while (readable(data) && (n = recv(data, buf, sizeof(buf), 0)) > 0) {
          std::lock_guard<std::mutex> lock(mu_);
          stored_.append(buf, static_cast<size_t>(n));
        }
        close(data);
      }
      send_text(ctl, "226 transfer complete\r\n");
    }
    if (verb == "QUIT") break;
  }
  close(ctl);
}

}  // namespace acceptance

#endif  // QUARRY_TESTS_ACCEPTANCE_FTP_PEER_H

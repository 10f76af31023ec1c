// Scripted FTP servers for the client's tests: a control peer that plays
// command and reply pairs and a data peer that the passive replies point
// at, both on loopback; plus the descriptor count the fault tests compare.
#ifndef QUARRY_TESTS_FTP_FTP_PEER_H
#define QUARRY_TESTS_FTP_FTP_PEER_H

#include <stdint.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace quarry_test {

// Waits for the command line |line| ("USER bob") and answers |reply|
// (CRLF added).
inline Script reply_to(const std::string &line, const std::string &reply) {
  return {read_until(line + "\r\n"), send_bytes(reply + "\r\n")};
}

inline Script operator+(Script a, const Script &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline std::string pasv_reply(uint16_t port) {
  return "227 Entering Passive Mode (127,0,0,1," + std::to_string(port / 256) + "," +
         std::to_string(port % 256) + ").";
}

inline std::string epsv_reply(uint16_t port) {
  return "229 Entering Extended Passive Mode (|||" + std::to_string(port) + "|)";
}

// Greeting, anonymous login with an empty password request, binary type
// and PASV to |data_port|.
inline Script anonymous_session(uint16_t data_port, const std::string &pass_line = "PASS") {
  return Script{send_bytes("220 ready\r\n")} + reply_to("USER anonymous", "331 send password") +
         reply_to(pass_line, "230 in") + reply_to("TYPE I", "200 binary") +
         reply_to("PASV", pasv_reply(data_port));
}

// The command bytes that session sends.
inline std::string anonymous_commands(const std::string &pass_line = "PASS") {
  return "USER anonymous\r\n" + pass_line + "\r\nTYPE I\r\nPASV\r\n";
}

inline void set_number(int id, uint32_t value) { dl_set_option(id, &value); }

// Library set up with a 1 s time-out and logs captured.
class FtpPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    set_number(DL_OPT_TIMEOUT, 1);
    set_number(DL_OPT_IPV6_ENABLE, 0);
    capture_ = std::make_unique<LogCapture>();
    fds_before_ = open_descriptors();
  }
  void TearDown() override {
    capture_.reset();
    dl_exit();
  }
  bool logged(int level, const std::string &line) const { return capture_->has(5, level, line); }
  double seconds_since(std::chrono::steady_clock::time_point start) const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  std::unique_ptr<LogCapture> capture_;
  TempDir dir_;
  dl_error err_ = {};
  int fds_before_ = 0;
};

}  // namespace quarry_test

#endif  // QUARRY_TESTS_FTP_FTP_PEER_H

// Settings changed on one thread while connects on others read them: the
// resolver switch, which connects read without cfg_lock, must be stored
// atomically. Meant to run under ThreadSanitizer (QUARRY_TSAN), which sees
// a plain store racing with those reads.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "quarry.h"

namespace {

constexpr int kConnectors = 4;
constexpr int kConnectsEach = 50;

// A loopback port bound but not listening: connects to it are refused at
// once. Returns the port; |*fd| keeps it bound.
int refusing_port(int *fd) {
  *fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sin = {};
  sin.sin_family = AF_INET;
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(sin);
  if (bind(*fd, reinterpret_cast<sockaddr *>(&sin), len) != 0) return -1;
  if (getsockname(*fd, reinterpret_cast<sockaddr *>(&sin), &len) != 0) return -1;
  return ntohs(sin.sin_port);
}

class OptionsConcurrency : public ::testing::Test {
 protected:
  void SetUp() override { dl_config_init(); }
  void TearDown() override {
    if (fd_ >= 0) close(fd_);
    dl_exit();
  }
  int fd_ = -1;
};

TEST_F(OptionsConcurrency, ResolverSwitchChangesWhileConnecting) {
  const int port = refusing_port(&fd_);
  ASSERT_GT(port, 0);
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    for (uint32_t n = 0; !stop; ++n) {
      uint32_t own = n % 2;
      dl_set_option(DL_OPT_USE_OWN_RESOLVER, &own);
    }
  });
  std::atomic<int> refused{0};
  std::vector<std::thread> connectors;
  for (int t = 0; t < kConnectors; ++t) {
    connectors.emplace_back([&] {
      for (int i = 0; i < kConnectsEach; ++i) {
        if (dl_connect("127.0.0.1", port, 0, 1) == DL_ERR_CONNECT) ++refused;
      }
    });
  }
  for (auto &c : connectors) c.join();
  stop = true;
  changer.join();
  EXPECT_EQ(refused.load(), kConnectors * kConnectsEach);
}

}  // namespace

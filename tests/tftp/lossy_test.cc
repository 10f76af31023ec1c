// Downloads from tftpd-hpa through a relay that drops a tenth of the
// datagrams in each direction (seeded, so a failing run can be replayed
// with QUARRY_LOSSY_SEED). Each transfer either completes byte for byte or
// fails with a time-out code, and a failed one leaves no file behind.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/real_servers.h"
#include "tests/tftp/tftp_test_env.h"

namespace quarry_test {
namespace {

constexpr int kDownloads = 50;
constexpr int kParallel = 10;
constexpr double kDropRate = 0.10;
constexpr unsigned kDefaultSeed = 20261124;
constexpr size_t kFileSize = 3000;

int udp_socket(sockaddr_in *bound) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  bind(fd, reinterpret_cast<sockaddr *>(&addr), len);
  getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
  *bound = addr;
  return fd;
}

// Sits between the client and the server's port 69 equivalent. Requests
// go to the server's listening port, everything else to the transfer port
// the server last answered from; replies go back to the client.
class LossyRelay {
 public:
  LossyRelay(uint16_t server_port, unsigned seed)
      : to_client_drop_(seed * 2 + 1), to_server_drop_(seed * 2) {
    client_fd_ = udp_socket(&client_side_);
    server_fd_ = udp_socket(&server_side_);
    listen_ = server_side_;
    listen_.sin_port = htons(server_port);
    thread_ = std::thread(&LossyRelay::run, this);
  }
  ~LossyRelay() {
    stop_ = true;
    thread_.join();
    close(client_fd_);
    close(server_fd_);
  }
  uint16_t port() const { return ntohs(client_side_.sin_port); }
  int dropped() const { return dropped_; }

 private:
  bool drop(std::mt19937 *rng) {
    bool lost = std::uniform_real_distribution<double>(0, 1)(*rng) < kDropRate;
    if (lost) ++dropped_;
    return lost;
  }
  void run() {
    pollfd fds[2] = {{client_fd_, POLLIN, 0}, {server_fd_, POLLIN, 0}};
    char buf[2048];
    while (!stop_) {
      if (poll(fds, 2, 20) <= 0) continue;
      sockaddr_in from = {};
      socklen_t len = sizeof(from);
      if ((fds[0].revents & POLLIN) != 0) {
        ssize_t n = recvfrom(client_fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (n >= 2) {
          client_ = from;
          bool request = buf[0] == 0 && (buf[1] == 1 || buf[1] == 2);
          const sockaddr_in &to = (request || transfer_.sin_port == 0) ? listen_ : transfer_;
          if (!drop(&to_server_drop_)) {
            sendto(server_fd_, buf, static_cast<size_t>(n), 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to));
          }
        }
      }
      len = sizeof(from);
      if ((fds[1].revents & POLLIN) != 0) {
        ssize_t n = recvfrom(server_fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (n >= 0) {
          transfer_ = from;
          if (!drop(&to_client_drop_) && client_.sin_port != 0) {
            sendto(client_fd_, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&client_), sizeof(client_));
          }
        }
      }
    }
  }

  int client_fd_ = -1;
  int server_fd_ = -1;
  sockaddr_in client_side_ = {};
  sockaddr_in server_side_ = {};
  sockaddr_in listen_ = {};
  sockaddr_in client_ = {};
  sockaddr_in transfer_ = {};
  std::mt19937 to_client_drop_;
  std::mt19937 to_server_drop_;
  std::atomic<int> dropped_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

unsigned base_seed() {
  const char *text = getenv("QUARRY_LOSSY_SEED");
  return text != nullptr ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : kDefaultSeed;
}

class TftpLossy : public TftpTest {};

TEST_F(TftpLossy, EveryDownloadIsWholeOrFailsCleanly) {
  QUARRY_USE_SERVER(tftpd, "tftpd");
  // The server sends again after 1 s without an answer; the client's wait
  // is longer, so one loss on the way is made good.
  set_option(DL_OPT_TIMEOUT, 2);
  TempDir dir;
  const std::string name = "lossy-" + std::to_string(getpid()) + ".bin";
  const std::string original = pattern(kFileSize, 3);
  {
    // Put the file in place over a clean path first.
    std::string local = dir.write("original.bin", original);
    dl_error err = {};
    ASSERT_EQ(dl_tftp_send_file("127.0.0.1", tftpd.port("tftp"), name.c_str(), local.c_str(), &err), 0)
        << err.msg;
  }
  for (int i = 0; i < 200 && read_file(tftpd.path("root/" + name)) != original; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(read_file(tftpd.path("root/" + name)), original);

  const unsigned seed = base_seed();
  std::atomic<int> completed{0};
  std::atomic<int> dropped{0};
  std::vector<int> codes(kDownloads, 1);
  std::vector<std::string> contents(kDownloads);
  std::vector<bool> left_behind(kDownloads, false);
  auto worker = [&](int first) {
    for (int i = first; i < kDownloads; i += kParallel) {
      LossyRelay relay(tftpd.port("tftp"), seed + static_cast<unsigned>(i));
      std::string local = dir.file("got-" + std::to_string(i));
      dl_error err = {};
      int rc = dl_tftp_recv_to_file("127.0.0.1", relay.port(), name.c_str(), local.c_str(), &err);
      codes[static_cast<size_t>(i)] = rc == 0 ? 0 : err.code;
      if (rc == 0) {
        contents[static_cast<size_t>(i)] = read_file(local);
        ++completed;
      } else {
        left_behind[static_cast<size_t>(i)] = file_exists(local);
      }
      dropped += relay.dropped();
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kParallel; ++t) threads.emplace_back(worker, t);
  for (std::thread &t : threads) t.join();

  for (int i = 0; i < kDownloads; ++i) {
    size_t k = static_cast<size_t>(i);
    if (codes[k] == 0) {
      EXPECT_TRUE(contents[k] == original) << "download " << i << " (seed " << seed + i << ")";
    } else {
      EXPECT_TRUE(codes[k] == DL_ERR_NOT_TFTP || codes[k] == DL_ERR_READ)
          << "download " << i << " code " << codes[k] << " (seed " << seed + i << ")";
      EXPECT_FALSE(left_behind[k]) << "download " << i << " left a file";
    }
  }
  EXPECT_GT(dropped.load(), 0);
  EXPECT_GT(completed.load(), 0);
  printf("lossy link (seed %u): %d of %d downloads completed, %d datagrams dropped\n", seed,
         completed.load(), kDownloads, dropped.load());
}

}  // namespace
}  // namespace quarry_test

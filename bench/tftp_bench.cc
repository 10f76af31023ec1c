// TFTP download throughput: a 2 MiB file with 1432-byte blocks from a
// loopback tftpd-hpa (started here through tests/servers/tftpd.sh, which
// needs root), fetched by libquarry, by libcurl's TFTP and by the atftp
// client, side by side. The client processes of atftp are part of its
// time; on loopback that is a small share of a 2 MiB transfer.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "bench/bench_support.h"
#include "quarry.h"

namespace {

constexpr size_t kFileSize = 2u << 20;
constexpr uint32_t kMaxFileSize = 4u << 20;
constexpr const char kRemote[] = "2M.bin";

uint16_t free_udp_port() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  bind(fd, reinterpret_cast<sockaddr *>(&addr), len);
  getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

// tftpd-hpa for the whole program in a directory of its own. It is stopped
// at exit, and the script's watchdog stops it and removes the directory
// should the program die first.
class TftpServer {
 public:
  TftpServer() {
    char dir[] = "/tmp/quarry-bench-tftpd.XXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    dir_ = dir;
    port_ = free_udp_port();
    std::string script = std::string(QUARRY_SOURCE_DIR) + "/tests/servers/tftpd.sh";
    std::string start = "QUARRY_SERVER_OWNER=" + std::to_string(getpid()) +
                        " QUARRY_SERVER_REMOVE_DIR=" + dir_ + " " + script + " start " + dir_ +
                        "/server " + std::to_string(port_) + " " +
                        std::to_string(free_udp_port()) + " > " + dir_ + "/start.log 2>&1";
    ok_ = system(start.c_str()) == 0 &&
          quarry_bench::write_pattern_file(dir_ + "/server/root/" + kRemote, kFileSize);
    stop_ = script + " stop " + dir_ + "/server > /dev/null 2>&1; rm -rf " + dir_;
  }
  ~TftpServer() {
    if (!stop_.empty() && system(stop_.c_str()) != 0) fprintf(stderr, "tftpd did not stop\n");
  }
  TftpServer(const TftpServer &) = delete;
  TftpServer &operator=(const TftpServer &) = delete;
  bool ok() const { return ok_; }
  uint16_t port() const { return port_; }

 private:
  std::string dir_;
  std::string stop_;
  uint16_t port_ = 0;
  bool ok_ = false;
};

TftpServer *server() {
  static TftpServer instance;
  return &instance;
}

bool whole_file(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && static_cast<size_t>(st.st_size) == kFileSize;
}

void finish(benchmark::State &state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileSize));
}

void BM_TftpDownload_Quarry(benchmark::State &state) {
  if (!server()->ok()) return state.SkipWithError("tftpd-hpa did not start (root needed)");
  uint32_t max_size = kMaxFileSize;
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &max_size);
  std::string out = quarry_bench::scratch_path("quarry-2M.bin");
  for (auto _ : state) {
    dl_error err = {};
    if (dl_tftp_recv_to_file("127.0.0.1", server()->port(), kRemote, out.c_str(), &err) != 0 ||
        !whole_file(out)) {
      return state.SkipWithError(err.msg);
    }
  }
  finish(state);
}
BENCHMARK(BM_TftpDownload_Quarry)->Unit(benchmark::kMillisecond)->UseRealTime();

size_t write_to_file(char *data, size_t size, size_t count, void *file) {
  return fwrite(data, size, count, static_cast<FILE *>(file)) * size;
}

void BM_TftpDownload_Curl(benchmark::State &state) {
  if (!server()->ok()) return state.SkipWithError("tftpd-hpa did not start (root needed)");
  std::string out = quarry_bench::scratch_path("curl-2M.bin");
  std::string url = "tftp://127.0.0.1:" + std::to_string(server()->port()) + "/" + kRemote;
  CURL *curl = curl_easy_init();
  for (auto _ : state) {
    FILE *file = fopen(out.c_str(), "wb");
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_TFTP_BLKSIZE, 1432L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write_to_file);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, file);
    CURLcode rc = curl_easy_perform(curl);
    fclose(file);
    if (rc != CURLE_OK || !whole_file(out)) {
      curl_easy_cleanup(curl);
      return state.SkipWithError(curl_easy_strerror(rc));
    }
  }
  curl_easy_cleanup(curl);
  finish(state);
}
BENCHMARK(BM_TftpDownload_Curl)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TftpDownload_AtftpClient(benchmark::State &state) {
  if (!server()->ok()) return state.SkipWithError("tftpd-hpa did not start (root needed)");
  std::string out = quarry_bench::scratch_path("atftp-2M.bin");
  std::string command = "atftp --option 'blksize 1432' -g -r " + std::string(kRemote) + " -l " +
                        out + " 127.0.0.1 " + std::to_string(server()->port()) +
                        " > /dev/null 2>&1";
  for (auto _ : state) {
    if (system(command.c_str()) != 0 || !whole_file(out)) {
      return state.SkipWithError("atftp failed (is it installed?)");
    }
  }
  finish(state);
}
BENCHMARK(BM_TftpDownload_AtftpClient)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

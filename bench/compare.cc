// Side-by-side comparison of libquarry and libcurl in one process, on the
// same loopback servers: interleaved pairs (quarry, curl, quarry, curl ...)
// of each kind of work, then medians and quarry/curl ratios of wall time,
// CPU time and throughput. Each transfer is a fresh dl_download or a fresh
// easy handle, so each makes a new connection (and, over TLS, a full
// handshake: a new easy handle has no session to resume). TFTP adds the
// atftp client as a third column, one process per download.
//
//   compare [--pairs N] [--only NAME] [--side quarry|curl|atftp]
//
// --side runs one side alone (for profiling with strace -c or perf).
//
// Starts nginx, vsftpd and tftpd-hpa through tests/servers/*.sh (root, as
// the tests do).
#include <curl/curl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "quarry.h"

namespace {

enum class Proto { kHttp, kHttps, kFtp, kTftp };

struct Work {
  const char *name;
  Proto proto;
  const char *file;
  size_t size;
  int transfers;  // per run
};

const Work kWorks[] = {
    {"http 4KiB new conn", Proto::kHttp, "4K.bin", 4096, 200},
    {"https 4KiB handshake", Proto::kHttps, "4K.bin", 4096, 50},
    {"http 2MiB", Proto::kHttp, "2M.bin", 2u << 20, 20},
    {"http 64MiB", Proto::kHttp, "64M.bin", 64u << 20, 2},
    {"ftp 2MiB passive", Proto::kFtp, "2M.bin", 2u << 20, 10},
    {"tftp 2MiB blk 1432", Proto::kTftp, "2M.bin", 2u << 20, 3},
};

constexpr long kTftpBlockSize = 1432;

struct Sample {
  double wall_s;
  double cpu_s;
};

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double seconds(const timeval &tv) { return tv.tv_sec + tv.tv_usec / 1e6; }

// The process's CPU time and that of the children it waited for (atftp).
double cpu_s() {
  rusage self, children;
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_CHILDREN, &children);
  return seconds(self.ru_utime) + seconds(self.ru_stime) + seconds(children.ru_utime) +
         seconds(children.ru_stime);
}

uint16_t free_port(int type) {
  int fd = socket(AF_INET, type, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
  socklen_t len = sizeof(a);
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

bool make_file(const std::string &path, size_t size) {
  FILE *f = fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  std::vector<char> block(65536);
  unsigned seed = 12345;
  for (char &c : block) c = static_cast<char>(rand_r(&seed));
  for (size_t done = 0; done < size;) {
    size_t n = std::min(block.size(), size - done);
    fwrite(block.data(), 1, n, f);
    done += n;
  }
  return fclose(f) == 0 && chmod(path.c_str(), 0644) == 0;
}

size_t file_size(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
}

// One of tests/servers/*.sh, started in a directory of its own on the
// given ports and stopped (with the directory removed) at the end.
class Server {
 public:
  Server(const char *script, const std::vector<uint16_t> &ports)
      : script_(std::string(QUARRY_SOURCE_DIR) + "/tests/servers/" + script), ports_(ports) {
    char tmpl[] = "/tmp/quarry-compare-XXXXXX";
    dir_ = mkdtemp(tmpl);
    std::string cmd = script_ + " start " + dir_;
    for (uint16_t port : ports_) cmd += " " + std::to_string(port);
    cmd += " > " + dir_ + ".log 2>&1";
    ok_ = system(cmd.c_str()) == 0;
    if (!ok_) fprintf(stderr, "%s did not start, see %s.log\n", script, dir_.c_str());
  }
  ~Server() {
    std::string cmd = script_ + " stop " + dir_ + " > /dev/null 2>&1; rm -rf " + dir_;
    if (ok_) cmd += " " + dir_ + ".log";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "stopping %s failed\n", script_.c_str());
  }
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;
  bool ok() const { return ok_; }
  uint16_t port(size_t i) const { return ports_[i]; }
  std::string path(const std::string &relative) const { return dir_ + "/" + relative; }

 private:
  std::string script_;
  std::string dir_;
  std::vector<uint16_t> ports_;
  bool ok_ = false;
};

struct Servers {
  Server nginx{"nginx.sh", {free_port(SOCK_STREAM), free_port(SOCK_STREAM), free_port(SOCK_STREAM)}};
  Server vsftpd{"vsftpd.sh", ftp_ports()};
  Server tftpd{"tftpd.sh", {free_port(SOCK_DGRAM), free_port(SOCK_DGRAM)}};

  static std::vector<uint16_t> ftp_ports() {
    // A passive range of 40 ports from a random base above 40000.
    uint16_t base = static_cast<uint16_t>(40000 + (getpid() % 500) * 40);
    return {free_port(SOCK_STREAM), free_port(SOCK_STREAM), base,
            static_cast<uint16_t>(base + 39)};
  }
  bool ok() const { return nginx.ok() && vsftpd.ok() && tftpd.ok(); }
  std::string served(const Work &w) const {
    switch (w.proto) {
      case Proto::kHttp:
      case Proto::kHttps:
        return nginx.path("www/files/") + w.file;
      case Proto::kFtp:
        return vsftpd.path("anon/pub/") + w.file;
      case Proto::kTftp:
        return tftpd.path("root/") + w.file;
    }
    return "";
  }
  std::string url(const Work &w) const {
    switch (w.proto) {
      case Proto::kHttp:
        return "http://127.0.0.1:" + std::to_string(nginx.port(0)) + "/files/" + w.file;
      case Proto::kHttps:
        return "https://127.0.0.1:" + std::to_string(nginx.port(1)) + "/files/" + w.file;
      case Proto::kFtp:
        return "ftp://127.0.0.1:" + std::to_string(vsftpd.port(0)) + "/pub/" + w.file;
      case Proto::kTftp:
        return "tftp://127.0.0.1:" + std::to_string(tftpd.port(0)) + "/" + w.file;
    }
    return "";
  }
  std::string ca_file() const { return nginx.path("pki/ca.crt"); }
  std::string ca_dir() const { return nginx.path("pki/cadir"); }
};

const Servers *g_servers = nullptr;

bool quarry_get(const Work &, const std::string &url, const std::string &out) {
  dl_request req = {const_cast<char *>(url.c_str()), nullptr, nullptr, nullptr};
  char redirect[512];
  dl_error err;
  return dl_download(&req, out.c_str(), redirect, &err) == 0;
}

bool curl_get(const Work &w, const std::string &url, const std::string &out) {
  FILE *f = fopen(out.c_str(), "wb");
  if (f == nullptr) return false;
  CURL *curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, f);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  if (w.proto == Proto::kHttps) {
    // The test CA alone, as libquarry trusts it: the hashed directory, and
    // not the system bundle libcurl would otherwise load on every handle.
    curl_easy_setopt(curl, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(curl, CURLOPT_CAPATH, g_servers->ca_dir().c_str());
  }
  if (w.proto == Proto::kTftp) curl_easy_setopt(curl, CURLOPT_TFTP_BLKSIZE, kTftpBlockSize);
  CURLcode rc = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  bool closed = fclose(f) == 0;
  return rc == CURLE_OK && closed;
}

bool atftp_get(const Work &w, const std::string &, const std::string &out) {
  std::string cmd = "atftp --option 'blksize " + std::to_string(kTftpBlockSize) + "' -g -r " +
                    w.file + " -l " + out + " 127.0.0.1 " +
                    std::to_string(g_servers->tftpd.port(0)) + " > /dev/null 2>&1";
  return system(cmd.c_str()) == 0;
}

using Getter = bool (*)(const Work &, const std::string &, const std::string &);

bool run(Getter get, const Work &w, int transfers, const std::string &url,
         const std::string &out, Sample *s) {
  double c0 = cpu_s(), t0 = now_s();
  for (int i = 0; i < transfers; ++i) {
    if (!get(w, url, out)) return false;
  }
  s->wall_s = now_s() - t0;
  s->cpu_s = cpu_s() - c0;
  if (file_size(out) != w.size) return false;
  unlink(out.c_str());
  return true;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

struct Summary {
  double wall, cpu;  // per transfer, seconds
};

Summary summarise(const std::vector<Sample> &runs, int transfers) {
  std::vector<double> wall, cpu;
  for (const Sample &s : runs) {
    wall.push_back(s.wall_s / transfers);
    cpu.push_back(s.cpu_s / transfers);
  }
  return {median(wall), median(cpu)};
}

void print_row(const char *name, size_t size, const Summary &q, const Summary &c) {
  if (size <= 65536) {
    printf("| %-24s | %8.0f us, %6.0f us CPU | %8.0f us, %6.0f us CPU | %5.2f wall, %5.2f CPU |\n",
           name, q.wall * 1e6, q.cpu * 1e6, c.wall * 1e6, c.cpu * 1e6, q.wall / c.wall,
           q.cpu / c.cpu);
  } else {
    double qt = size / q.wall / 1e6, ct = size / c.wall / 1e6;
    printf("| %-24s | %8.1f MB/s, %5.3f s CPU | %8.1f MB/s, %5.3f s CPU | %5.2f thr, %5.2f wall, "
           "%5.2f CPU |\n",
           name, qt, q.cpu, ct, c.cpu, qt / ct, q.wall / c.wall, q.cpu / c.cpu);
  }
  fflush(stdout);
}

struct Side {
  const char *name;
  Getter get;
  bool wanted;
  std::vector<Sample> samples;
};

// The sides of |w|: libquarry, libcurl, and for TFTP the atftp client.
std::vector<Side> sides_of(const Work &w, const char *only_side) {
  std::vector<Side> sides = {{"quarry", quarry_get, true, {}}, {"curl", curl_get, true, {}}};
  if (w.proto == Proto::kTftp) sides.push_back({"atftp", atftp_get, true, {}});
  for (Side &s : sides) s.wanted = only_side[0] == '\0' || strcmp(only_side, s.name) == 0;
  return sides;
}

// Runs |pairs| interleaved rounds of |w| (one run of each side per round)
// and prints its rows. Returns false when a transfer failed.
bool compare(const Work &w, int pairs, const char *only_side, const std::string &out) {
  const std::string url = g_servers->url(w);
  std::vector<Side> sides = sides_of(w, only_side);
  for (Side &s : sides) {
    Sample warm;  // one untimed transfer each warms caches and the server
    if (s.wanted && !run(s.get, w, 1, url, out, &warm)) {
      fprintf(stderr, "%s: a %s transfer failed\n", w.name, s.name);
      return false;
    }
    s.samples.resize(pairs);
  }
  for (int p = 0; p < pairs; ++p) {
    for (Side &s : sides) {
      if (s.wanted && !run(s.get, w, w.transfers, url, out, &s.samples[p])) {
        fprintf(stderr, "%s: a %s transfer failed\n", w.name, s.name);
        return false;
      }
    }
  }
  if (only_side[0] != '\0') return true;
  Summary q = summarise(sides[0].samples, w.transfers);
  print_row(w.name, w.size, q, summarise(sides[1].samples, w.transfers));
  if (sides.size() > 2) {
    std::string name = std::string(w.name).substr(0, 9) + " vs atftp";
    print_row(name.c_str(), w.size, q, summarise(sides[2].samples, w.transfers));
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  int pairs = 5;
  const char *only = nullptr;
  const char *side = "";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--pairs") == 0) pairs = atoi(argv[i + 1]);
    if (strcmp(argv[i], "--only") == 0) only = argv[i + 1];
    if (strcmp(argv[i], "--side") == 0) side = argv[i + 1];
  }
  Servers servers;
  if (!servers.ok()) {
    fprintf(stderr, "the servers did not start (run as root with the test servers installed)\n");
    return 1;
  }
  g_servers = &servers;
  for (const Work &w : kWorks) {
    if (!make_file(servers.served(w), w.size)) return 1;
  }
  dl_config_init();
  uint32_t max_size = 128u << 20;
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &max_size);
  // HTTPS as the phone sets it up: negotiated version, the test CA's hashed
  // directory, chain and host name checked.
  uint32_t method = 3, on = 1;
  dl_set_option(DL_OPT_SSL_METHOD, &method);
  dl_set_option(DL_OPT_SSL_VERIFY, &on);
  dl_set_option(DL_OPT_SSL_CHECK_HOST, &on);
  dl_set_option(DL_OPT_SSL_CA_PATH, const_cast<char *>(servers.ca_dir().c_str()));
  curl_global_init(CURL_GLOBAL_DEFAULT);
  char out_dir[] = "/tmp/quarry-compare-out-XXXXXX";
  if (mkdtemp(out_dir) == nullptr) return 1;
  const std::string out = std::string(out_dir) + "/out.bin";

  printf("%d interleaved pairs per row (triples for TFTP); medians per transfer\n\n", pairs);
  printf("| %-24s | %-30s | %-30s | %-23s |\n", "work", "libquarry", "libcurl (or atftp)",
         "quarry/other");
  printf("|---|---|---|---|\n");
  int status = 0;
  for (const Work &w : kWorks) {
    if (only != nullptr && strstr(w.name, only) == nullptr) continue;
    if (!compare(w, pairs, side, out)) status = 1;
  }
  rmdir(out_dir);
  curl_global_cleanup();
  dl_exit();
  return status;
}

// Side-by-side comparison of libquarry and libcurl in one process, on the
// same loopback nginx: interleaved pairs (quarry, curl, quarry, curl ...)
// of each kind of work, then medians and quarry/curl ratios of wall time,
// CPU time and throughput. Each transfer is a fresh dl_download or a fresh
// easy handle, so each makes a new connection.
//
//   compare [--pairs N] [--only NAME] [--side quarry|curl]
//
// --side runs one library alone (for profiling with strace -c or perf).
//
// Starts nginx through tests/servers/nginx.sh (root, as the tests do).
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

struct Work {
  const char *name;
  const char *file;  // under /files/
  size_t size;
  int transfers;  // per run
};

const Work kWorks[] = {
    {"http 4KiB new conn", "4K.bin", 4096, 200},
    {"http 2MiB", "2M.bin", 2u << 20, 20},
    {"http 64MiB", "64M.bin", 64u << 20, 2},
};

struct Sample {
  double wall_s;
  double cpu_s;
};

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

double cpu_s() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + ru.ru_stime.tv_sec +
         ru.ru_stime.tv_usec / 1e6;
}

uint16_t free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
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
  return fclose(f) == 0;
}

size_t file_size(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
}

class Nginx {
 public:
  explicit Nginx(const std::string &source_dir) : script_(source_dir + "/tests/servers/nginx.sh") {
    char tmpl[] = "/tmp/quarry-compare-XXXXXX";
    dir_ = mkdtemp(tmpl);
    port_ = free_port();
    std::string cmd = script_ + " start " + dir_ + " " + std::to_string(port_) + " " +
                      std::to_string(free_port()) + " " + std::to_string(free_port()) +
                      " > " + dir_ + ".log 2>&1";
    ok_ = system(cmd.c_str()) == 0;
  }
  ~Nginx() {
    std::string cmd = script_ + " stop " + dir_ + " > /dev/null 2>&1; rm -rf " + dir_ + " " +
                      dir_ + ".log";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "stopping nginx failed\n");
  }
  bool ok() const { return ok_; }
  std::string files() const { return dir_ + "/www/files/"; }
  std::string url(const std::string &file) const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/files/" + file;
  }

 private:
  std::string script_;
  std::string dir_;
  uint16_t port_ = 0;
  bool ok_ = false;
};

bool quarry_get(const std::string &url, const std::string &out) {
  dl_request req = {const_cast<char *>(url.c_str()), nullptr, nullptr, nullptr};
  char redirect[512];
  dl_error err;
  return dl_download(&req, out.c_str(), redirect, &err) == 0;
}

bool curl_get(const std::string &url, const std::string &out) {
  FILE *f = fopen(out.c_str(), "wb");
  if (f == nullptr) return false;
  CURL *curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, f);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  CURLcode rc = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  bool closed = fclose(f) == 0;
  return rc == CURLE_OK && closed;
}

using Getter = bool (*)(const std::string &, const std::string &);

bool run(Getter get, const Work &w, const std::string &url, const std::string &out,
         Sample *s) {
  double c0 = cpu_s(), t0 = now_s();
  for (int i = 0; i < w.transfers; ++i) {
    if (!get(url, out)) return false;
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

void print_row(const Work &w, const Summary &q, const Summary &c) {
  if (w.size <= 65536) {
    printf("| %-20s | %8.0f us, %6.0f us CPU | %8.0f us, %6.0f us CPU | %5.2f wall, %5.2f CPU |\n",
           w.name, q.wall * 1e6, q.cpu * 1e6, c.wall * 1e6, c.cpu * 1e6, q.wall / c.wall,
           q.cpu / c.cpu);
  } else {
    double qt = w.size / q.wall / 1e6, ct = w.size / c.wall / 1e6;
    printf("| %-20s | %8.0f MB/s, %5.3f s CPU | %8.0f MB/s, %5.3f s CPU | %5.2f thr, %5.2f CPU |\n",
           w.name, qt, q.cpu, ct, c.cpu, qt / ct, q.cpu / c.cpu);
  }
  fflush(stdout);
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
  const bool run_quarry = strcmp(side, "curl") != 0;
  const bool run_curl = strcmp(side, "quarry") != 0;
  Nginx nginx(QUARRY_SOURCE_DIR);
  if (!nginx.ok()) {
    fprintf(stderr, "nginx did not start (run as root with the test servers installed)\n");
    return 1;
  }
  for (const Work &w : kWorks) {
    if (!make_file(nginx.files() + w.file, w.size)) return 1;
  }
  dl_config_init();
  uint32_t max_size = 128u << 20;
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &max_size);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  char out_dir[] = "/tmp/quarry-compare-out-XXXXXX";
  if (mkdtemp(out_dir) == nullptr) return 1;
  const std::string out = std::string(out_dir) + "/out.bin";

  printf("%d interleaved pairs per row; medians per transfer\n\n", pairs);
  printf("| %-20s | %-30s | %-30s | %-23s |\n", "work", "libquarry", "libcurl", "quarry/curl");
  printf("|---|---|---|---|\n");
  int status = 0;
  for (const Work &w : kWorks) {
    if (only != nullptr && strstr(w.name, only) == nullptr) continue;
    std::string url = nginx.url(w.file);
    // One untimed transfer each warms caches and the server.
    Sample warm;
    if ((run_quarry && !run(quarry_get, {w.name, w.file, w.size, 1}, url, out, &warm)) ||
        (run_curl && !run(curl_get, {w.name, w.file, w.size, 1}, url, out, &warm))) {
      fprintf(stderr, "%s: a transfer failed\n", w.name);
      status = 1;
      continue;
    }
    std::vector<Sample> q(pairs), c(pairs);
    bool ok = true;
    for (int p = 0; p < pairs && ok; ++p) {
      ok = (!run_quarry || run(quarry_get, w, url, out, &q[p])) &&
           (!run_curl || run(curl_get, w, url, out, &c[p]));
    }
    if (!run_quarry || !run_curl) continue;
    if (!ok) {
      fprintf(stderr, "%s: a transfer failed\n", w.name);
      status = 1;
      continue;
    }
    print_row(w, summarise(q, w.transfers), summarise(c, w.transfers));
  }
  rmdir(out_dir);
  curl_global_cleanup();
  dl_exit();
  return status;
}

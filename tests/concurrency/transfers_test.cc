// Eight threads transferring at once (downloads saved and streamed,
// uploads) over HTTP, HTTPS, FTP and TFTP with real servers, by a host name
// that only the library's own hosts file knows, while another thread keeps
// changing settings, log thresholds and the resolver files. Every file must
// arrive byte for byte, and between the first and the second half of the
// run no descriptor and no heap may stay behind. Meant to run under
// ThreadSanitizer as well (QUARRY_TSAN).
#include <stdio.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quarry.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QUARRY_SANITIZER_HEAP 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUARRY_SANITIZER_HEAP 1
#endif
#ifdef QUARRY_SANITIZER_HEAP
// From the sanitizer runtime (GCC ships no header for it): the heap it
// manages in place of malloc's.
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#else
#include <malloc.h>
#endif

namespace quarry_test {
namespace {

constexpr int kThreads = 8;
constexpr int kTransfers = 200;
constexpr int kHalf = kTransfers / 2;
constexpr size_t kFileSize = 4096;
// Waits of 10 ms for an uploaded file to be complete on the server.
constexpr int kStoreWaits = 200;
// In the library's own hosts file only; the test certificate covers
// *.wild.test, so HTTPS is verified against this name too.
const char kHost[] = "quarry.wild.test";

enum Protocol { kHttp, kHttps, kFtp, kTftp, kProtocols };
const char *const kProtocolNames[kProtocols] = {"http", "https", "ftp", "tftp"};

// Heap that may stay between the two samples without a leak. The
// sanitizers count live blocks exactly, so only OpenSSL's and libc's lazily
// made state can appear there: a leak of a hundred bytes per transfer
// fails. glibc's count also holds the chunks each thread's cache keeps,
// which grow as new sizes come up; there only a larger leak shows.
#ifdef QUARRY_SANITIZER_HEAP
constexpr long kHeapSlack = 64 * 1024;
#else
constexpr long kHeapSlack = 1024 * 1024;
#endif

size_t heap_in_use() {
#ifdef QUARRY_SANITIZER_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

long resident_kib() {
  FILE *f = fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  long pages = 0;
  long resident = 0;
  if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = -1;
  fclose(f);
  return resident < 0 ? -1 : resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Where every worker stops twice: the main thread takes its samples while
// no transfer runs, then lets them go on.
class Checkpoint {
 public:
  explicit Checkpoint(int parties) : parties_(parties) {}
  void arrive_and_wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    const int round = round_;
    if (++arrived_ == parties_) all_in_.notify_all();
    released_.wait(lock, [&] { return round_ != round; });
  }
  void wait_for_all() {
    std::unique_lock<std::mutex> lock(mutex_);
    all_in_.wait(lock, [&] { return arrived_ == parties_; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    arrived_ = 0;
    ++round_;
    released_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_in_;
  std::condition_variable released_;
  const int parties_;
  int arrived_ = 0;
  int round_ = 0;
};

struct Sample {
  int fds;
  size_t heap;
  long rss_kib;
};

Sample sample() { return {open_descriptors(), heap_in_use(), resident_kib()}; }

class ConcurrentTransfers : public ::testing::Test {
 protected:
  void SetUp() override {
    nginx_ = &RealServer::shared("nginx");
    QUARRY_REQUIRE_SERVER(*nginx_);
    vsftpd_ = &RealServer::shared("vsftpd");
    QUARRY_REQUIRE_SERVER(*vsftpd_);
    tftpd_ = &RealServer::shared("tftpd");
    QUARRY_REQUIRE_SERVER(*tftpd_);

    dl_config_init();
    resolv_ = dir_.file("resolv.conf");
    hosts_ = dir_.file("hosts");
    ASSERT_NO_FATAL_FAILURE(rewrite_resolver_files(0));
    ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv_.c_str()), 0);
    ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts_.c_str()), 0);
    // A new path is read at the next connect's change check, and TFTP makes
    // no connect: a thread starting with TFTP must find the files loaded.
    dl_dns_reload_resolv_conf();
    ASSERT_EQ(dl_dns_reload_hosts_conf(), 0);
    set(DL_OPT_USE_OWN_RESOLVER, 1);
    set(DL_OPT_TIMEOUT, 10);
    set(DL_OPT_SSL_METHOD, 5);
    set(DL_OPT_SSL_VERIFY, 1);
    set(DL_OPT_SSL_CHECK_HOST, 1);
    cadir_ = RealServer::pki("cadir");
    client_pem_ = RealServer::pki("client.pem");
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, cadir_.c_str()), 0);

    for (int t = 0; t < kThreads; ++t) {
      const std::string name = "conc-" + std::to_string(t) + ".bin";
      content_[t] = random_bytes(kFileSize, 1000u + static_cast<unsigned>(t));
      write_file(nginx_->doc_root() + "/files/" + name, content_[t]);
      write_file(vsftpd_->path("anon/pub/" + name), content_[t]);
      // One file per thread: tftpd-hpa serves each request from a child
      // of its own, but distinct names keep the threads' reads apart.
      write_file(tftpd_->path("root/" + name), content_[t]);
      urls_[t][kHttp] = url("http", nginx_->port("http"), "/files/" + name);
      urls_[t][kHttps] = url("https", nginx_->port("https"), "/files/" + name);
      urls_[t][kFtp] = url("ftp", vsftpd_->port("ftp"), "/pub/" + name);
      urls_[t][kTftp] = url("tftp", tftpd_->port("tftp"), "/" + name);
      sources_[t] = dir_.write("src-" + std::to_string(t) + ".bin", content_[t]);
    }
  }
  void TearDown() override { dl_exit(); }

  static std::string url(const char *scheme, uint16_t port, const std::string &path) {
    return std::string(scheme) + "://" + kHost + ":" + std::to_string(port) + path;
  }
  static void set(int id, uint32_t value) { ASSERT_EQ(dl_set_option(id, &value), 0); }

  // Replaces both resolver files in one step each, with a modification
  // time of their own so that the next connect reloads them. Round |n|
  // decides what else they hold; the test's name always maps to 127.0.0.1.
  void rewrite_resolver_files(int n) {
    const bool odd = n % 2 != 0;
    replace(resolv_, odd ? "nameserver 127.0.0.1:9\nnameserver 127.0.0.2\n"
                         : "# rewritten\nnameserver 127.0.0.3:9\n",
            n);
    replace(hosts_,
            odd ? std::string("192.0.2.7 other.test\n127.0.0.1 ") + kHost + " alias.test\n"
                : std::string("127.0.0.1 ") + kHost + "\n::1 six.test\n",
            n);
  }
  static void replace(const std::string &path, const std::string &text, int n) {
    const std::string tmp = path + ".new";
    write_file(tmp, text);
    const time_t when = 1000000 + n;
    utimbuf times = {when, when};
    ASSERT_EQ(utime(tmp.c_str(), &times), 0);
    ASSERT_EQ(rename(tmp.c_str(), path.c_str()), 0);
  }

  // One round of changes a phone's settings code might make while
  // transfers run; none of them may break a transfer.
  void change_settings(int n) {
    const bool odd = n % 2 != 0;
    set(DL_OPT_TIMEOUT, odd ? 20 : 10);
    set(DL_OPT_MAX_FILE_SIZE, odd ? 1u << 20 : 2u << 20);
    set(DL_OPT_SSL_METHOD, odd ? 3 : 5);
    set(DL_OPT_MAX_REDIRECTS, odd ? 3 : 5);
    set(DL_OPT_AUTH_RETRY, odd ? 3 : 2);
    set(DL_OPT_IPV6_ENABLE, 0);
    set(DL_OPT_USE_OWN_RESOLVER, 1);
    set(DL_OPT_SSL_VERIFY, 1);
    set(DL_OPT_SSL_CHECK_HOST, 1);
    ASSERT_EQ(dl_set_option(DL_OPT_USER_AGENT, odd ? "quarry-test/1" : "quarry-test/2"), 0);
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CA_PATH, cadir_.c_str()), 0);
    ASSERT_EQ(dl_set_option(DL_OPT_TMP_DIR, dir_.path().c_str()), 0);
    ASSERT_EQ(dl_set_option(DL_OPT_RESOLV_CONF_PATH, resolv_.c_str()), 0);
    ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts_.c_str()), 0);
    dl_set_log_level(static_cast<unsigned>(n % 4));
    dl_set_log_module_level(DL_LOG_MODULE_HTTP, odd ? 7 : 3);
    dl_dns_set_timeout(odd ? 2 : 1);
    dl_dns_set_nretry(odd ? 3 : 2);
    const int hosts_first[] = {1, 2};
    dl_dns_set_resolv_seq(hosts_first, 2);
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CERT_PATH, odd ? client_pem_.c_str() : ""), 0);
    ASSERT_EQ(dl_set_option(DL_OPT_SSL_CIPHER_LIST, odd ? "HIGH:!aNULL" : "DEFAULT"), 0);
    uint8_t ring[DL_RING_ENTRY_SIZE] = {static_cast<uint8_t>(n % DL_RING_MAP_ENTRIES), 1, 'b', 0};
    ASSERT_EQ(dl_set_option(DL_OPT_RING_ENTRY, ring), 0);
    ASSERT_NO_FATAL_FAILURE(rewrite_resolver_files(n));
  }

  enum Mode { kSave, kStream, kUpload, kModes };

  // Fetches |u| into |local| with dl_download, or through dl_open and
  // dl_read when |stream| is set; returns the result and what arrived.
  static int fetch(const std::string &u, const std::string &local, bool stream, std::string *got,
                   dl_error *err) {
    dl_request req = {};
    req.url = const_cast<char *>(u.c_str());
    char redirect[512] = "";
    if (!stream) {
      int rc = dl_download(&req, local.c_str(), redirect, err);
      *got = read_file(local);
      unlink(local.c_str());
      return rc;
    }
    dl_handle *h = nullptr;
    int rc = dl_open(&req, &h, redirect, err);
    if (rc != 0 || h == nullptr) return rc != 0 ? rc : -1;
    char buf[1500];
    int n;
    while ((n = dl_read(h, buf, sizeof(buf), err)) > 0) got->append(buf, static_cast<size_t>(n));
    dl_close(h);
    return n;
  }

  // Uploads thread |t|'s file as |name| over |protocol|; returns the result
  // and, in |got|, what the server stored (then removed). A TFTP server may
  // finish writing a moment after its last acknowledgement.
  int send(int t, int protocol, const std::string &name, std::string *got, std::string *u,
           dl_error *err) {
    const char *remote = nullptr;
    std::string stored;
    switch (protocol) {
      case kHttp:
      case kHttps:
        *u = url(kProtocolNames[protocol], nginx_->port(kProtocolNames[protocol]),
                 "/upload/" + name);
        stored = nginx_->upload_dir() + "/" + name;
        break;
      case kFtp:
        *u = url("ftp", vsftpd_->port("ftp"), "/incoming/");
        remote = name.c_str();
        stored = vsftpd_->path("anon/incoming/" + name);
        break;
      default:
        *u = url("tftp", tftpd_->port("tftp"), "/");
        remote = name.c_str();
        stored = tftpd_->path("root/" + name);
        break;
    }
    dl_request req = {};
    req.url = const_cast<char *>(u->c_str());
    char redirect[512] = "";
    int rc = dl_upload(&req, sources_[t].c_str(), remote, redirect, err, "", DL_HTTP_PUT, 0);
    for (int wait = 0; wait < kStoreWaits && rc == 0 && read_file(stored).size() < kFileSize;
         ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    *got = read_file(stored);
    unlink(stored.c_str());
    return rc;
  }

  // Thread |t|'s transfers [first, last): each protocol in turn, and over
  // the rounds of four a download saved to a file, one streamed and an
  // upload; each file compared with the original and removed.
  void run_transfers(int t, int first, int last) {
    const std::string local = dir_.file("out-" + std::to_string(t) + ".bin");
    for (int i = first; i < last; ++i) {
      const int protocol = (i + t) % kProtocols;
      const int mode = (i / kProtocols) % kModes;
      std::string u = urls_[t][protocol];
      dl_error err = {};
      std::string got;
      const auto start = std::chrono::steady_clock::now();
      int rc = mode == kUpload
                   ? send(t, protocol, "up-" + std::to_string(t) + "-" + std::to_string(i) + ".bin",
                          &got, &u, &err)
                   : fetch(u, local, mode == kStream, &got, &err);
      spent_ms_[protocol] += static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  std::chrono::steady_clock::now() - start)
                                                  .count());
      if (rc == 0 && got == content_[t]) {
        ++done_[protocol];
        ++done_by_mode_[mode];
        continue;
      }
      static const char *const kModeNames[kModes] = {"save", "stream", "upload"};
      std::lock_guard<std::mutex> lock(failures_mutex_);
      failures_.push_back(std::string(kModeNames[mode]) + " " + u + ": result " +
                          std::to_string(rc) + ", code " + std::to_string(err.code) + " \"" +
                          err.msg + "\", " + std::to_string(got.size()) + " bytes");
    }
  }

  RealServer *nginx_ = nullptr;
  RealServer *vsftpd_ = nullptr;
  RealServer *tftpd_ = nullptr;
  TempDir dir_;
  std::string resolv_;
  std::string hosts_;
  std::string cadir_;
  std::string client_pem_;
  std::array<std::string, kThreads> content_;
  std::array<std::array<std::string, kProtocols>, kThreads> urls_;
  // Each thread's file to upload, the same bytes as content_.
  std::array<std::string, kThreads> sources_;
  std::array<std::atomic<int>, kProtocols> done_{};
  std::array<std::atomic<int>, kModes> done_by_mode_{};
  // Milliseconds spent in each protocol's transfers, all threads together.
  std::array<std::atomic<int>, kProtocols> spent_ms_{};
  std::mutex failures_mutex_;
  std::vector<std::string> failures_;
};

TEST_F(ConcurrentTransfers, EightThreadsWhileSettingsAndResolverFilesChange) {
  Checkpoint checkpoint(kThreads);
  std::vector<std::thread> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.emplace_back([&, t] {
      run_transfers(t, 0, kHalf);
      checkpoint.arrive_and_wait();
      run_transfers(t, kHalf, kTransfers);
      checkpoint.arrive_and_wait();
    });
  }

  // The settings thread holds |changing| for each round, so that samples
  // never catch it with a resolver file half written.
  std::mutex changing;
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::thread changer([&] {
    for (int n = 1; !stop; ++n) {
      {
        std::lock_guard<std::mutex> lock(changing);
        change_settings(n);
      }
      ++rounds;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });

  Sample samples[2];
  for (Sample &s : samples) {
    checkpoint.wait_for_all();
    {
      std::lock_guard<std::mutex> lock(changing);
      s = sample();
    }
    checkpoint.release();
  }
  for (auto &w : workers) w.join();
  stop = true;
  changer.join();

  for (const std::string &f : failures_) ADD_FAILURE() << f;
  for (int p = 0; p < kProtocols; ++p) {
    EXPECT_EQ(done_[p].load(), kThreads * kTransfers / kProtocols) << kProtocolNames[p];
  }
  EXPECT_GT(rounds.load(), 10);
  EXPECT_EQ(samples[1].fds, samples[0].fds);
  const long heap_growth = static_cast<long>(samples[1].heap) - static_cast<long>(samples[0].heap);
  EXPECT_LT(heap_growth, kHeapSlack);
  printf("%d threads x %d transfers (%d http, %d https, %d ftp, %d tftp), %zu failed; "
         "%d settings rounds; after %d and %d per thread: descriptors %d -> %d, "
         "heap %zu -> %zu bytes, resident %ld -> %ld KiB\n",
         kThreads, kTransfers, done_[kHttp].load(), done_[kHttps].load(), done_[kFtp].load(),
         done_[kTftp].load(), failures_.size(), rounds.load(), kHalf, kTransfers, samples[0].fds,
         samples[1].fds, samples[0].heap, samples[1].heap, samples[0].rss_kib, samples[1].rss_kib);
  printf("saved %d, streamed %d, uploaded %d\n", done_by_mode_[kSave].load(),
         done_by_mode_[kStream].load(), done_by_mode_[kUpload].load());
  printf("mean time per transfer: http %d ms, https %d ms, ftp %d ms, tftp %d ms\n",
         spent_ms_[kHttp].load() / std::max(done_[kHttp].load(), 1),
         spent_ms_[kHttps].load() / std::max(done_[kHttps].load(), 1),
         spent_ms_[kFtp].load() / std::max(done_[kFtp].load(), 1),
         spent_ms_[kTftp].load() / std::max(done_[kTftp].load(), 1));
}

}  // namespace
}  // namespace quarry_test

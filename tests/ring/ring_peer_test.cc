// dl_distinctive_ringtone_download against scripted HTTP peers: the
// decision by name and host, the fetch and its checks, and the cache.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/peer/listener.h"
#include "tests/peer/scripted_peer.h"
#include "tests/ring/ring_test_support.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_ring_test::cache_path;
using quarry_ring_test::unique_path;
using quarry_ring_test::wav_file;
using quarry_test::Listener;
using quarry_test::LogCapture;
using quarry_test::read_file;
using quarry_test::read_to_end;
using quarry_test::read_until;
using quarry_test::reset_conn;
using quarry_test::send_bytes;
using quarry_test::sleep_ms;
using quarry_test::TcpPeer;

constexpr const char *kHeaderEnd = "\r\n\r\n";

// The lines the ring-tone code writes (module HTTP, level error).
const char *const kRingTexts[] = {"Invalid Parameter", "http open error", "File size exceeded",
                                  "read error",        "Wrong Wave Format", "can't open file:",
                                  "Down load Error",   "MD5 error"};

std::string ok_head(size_t length) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

class Ring : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_exit();
    dl_config_init();
    uint32_t timeout = 1;
    ASSERT_EQ(dl_set_option(DL_OPT_TIMEOUT, &timeout), 0);
    capture_ = std::make_unique<LogCapture>();
  }
  void TearDown() override {
    capture_.reset();
    dl_exit();
    libq_log_exit();
  }

  // A fresh alert URL on localhost:|port|; its cache file is removed around the test.
  std::string url_on(uint16_t port, const std::string &stem = "tone") {
    return cache_.add("http://localhost:" + std::to_string(port) + unique_path(stem));
  }
  // The same on 127.0.0.1, a host that only carries a ring name.
  std::string loopback_url_on(uint16_t port) {
    return cache_.add("http://127.0.0.1:" + std::to_string(port) + unique_path("name"));
  }
  int decide(const std::string &url, const char *name) {
    return decide_raw(url.c_str(), name);
  }
  int decide_raw(const char *url, const char *name) {
    ring_ = 1234;
    memset(path_, 'x', sizeof(path_));
    path_[sizeof(path_) - 1] = '\0';
    return dl_distinctive_ringtone_download(url, name, &ring_, path_, sizeof(path_));
  }
  // Lets |peer| answer one request with |reply| and keep the connection
  // until the library closes it.
  static void serve(TcpPeer *peer, const std::string &reply) {
    peer->add({read_until(kHeaderEnd), send_bytes(reply), read_to_end()});
    peer->start();
  }
  // The ring-tone lines logged so far, messages only, in order.
  std::vector<std::string> ring_lines() const {
    const std::string prefix = LogCapture::line(DL_LOG_MODULE_HTTP, 3, "");
    std::vector<std::string> out;
    const std::string text = capture_->text();
    size_t at = 0;
    while (at < text.size()) {
      size_t end = text.find('\n', at);
      if (end == std::string::npos) end = text.size();
      const std::string line = text.substr(at, end - at);
      at = end + 1;
      if (line.compare(0, prefix.size(), prefix) != 0) continue;
      const std::string message = line.substr(prefix.size());
      for (const char *ring_text : kRingTexts) {
        if (message.compare(0, strlen(ring_text), ring_text) == 0) out.push_back(message);
      }
    }
    return out;
  }
  using Lines = std::vector<std::string>;

  quarry_ring_test::CacheFiles cache_;
  std::unique_ptr<LogCapture> capture_;
  int32_t ring_ = 0;
  char path_[128];
};

// ------------------------------------------------------------ by name ----

TEST_F(Ring, BuiltInNamesWithoutUrlGiveTheirNumber) {
  EXPECT_EQ(decide_raw(nullptr, "ringtone-5"), 1);
  EXPECT_EQ(ring_, 5);
  EXPECT_EQ(decide_raw("", "RINGTONE-5"), 1);
  EXPECT_EQ(ring_, 5);
  EXPECT_EQ(decide_raw(nullptr, "MyMelody5"), 1);
  EXPECT_EQ(ring_, 5);
  EXPECT_EQ(ring_lines(), Lines{});
}

TEST_F(Ring, NeitherUrlNorNameIsTheDefaultRing) {
  EXPECT_EQ(decide_raw(nullptr, nullptr), 0);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(decide_raw("", ""), 0);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(ring_lines(), Lines{});
}

TEST_F(Ring, ConfiguredNameWithoutUrlGivesItsRing) {
  uint8_t entry[DL_RING_ENTRY_SIZE] = {3, 11, 'F', 'a', 'm', 'i', 'l', 'y'};
  ASSERT_EQ(dl_set_option(DL_OPT_RING_ENTRY, entry), 0);
  EXPECT_EQ(decide_raw(nullptr, "family"), 1);
  EXPECT_EQ(ring_, 11);
}

TEST_F(Ring, UnknownNameIsTheDefaultRingWithRingMinusOne) {
  EXPECT_EQ(decide_raw(nullptr, "Jazz"), 0);
  EXPECT_EQ(ring_, -1);
}

TEST_F(Ring, MissingOutputsAreRefusedWithTheDefaultRing) {
  char path[64];
  int32_t ring = 7;
  EXPECT_EQ(dl_distinctive_ringtone_download(nullptr, "ringtone-2", nullptr, path, sizeof(path)),
            0);
  EXPECT_EQ(dl_distinctive_ringtone_download(nullptr, "ringtone-2", &ring, nullptr, 64), 0);
  EXPECT_EQ(ring, 7);
  EXPECT_EQ(ring_lines(), (Lines{"Invalid Parameter, Try to use default ringtone",
                                 "Invalid Parameter, Try to use default ringtone"}));
}

TEST_F(Ring, BareRingNameInTheUrlFieldSelectsIt) {
  EXPECT_EQ(decide_raw("Bellcore-dr2", nullptr), 1);
  EXPECT_EQ(ring_, 2);
}

TEST_F(Ring, UnparsableUrlDefersToTheName) {
  EXPECT_EQ(decide_raw("Bellcore-dr2", "ringtone-4"), 1);
  EXPECT_EQ(ring_, 4);
  EXPECT_EQ(decide_raw("ftp://host/x.wav", "Jazz"), 0);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(decide_raw("not a url", nullptr), 0);
}

// ------------------------------------------------- hosts that carry a name ----

TEST_F(Ring, LoopbackHostWithNameGivesTheNamedRingWithoutTraffic) {
  Listener listener;
  ASSERT_TRUE(listener.ok());
  EXPECT_EQ(decide(loopback_url_on(listener.port()), "Bellcore-dr2"), 1);
  EXPECT_EQ(ring_, 2);
  EXPECT_EQ(listener.accept_within(50), -1);
  EXPECT_EQ(ring_lines(), Lines{});
}

TEST_F(Ring, LoopbackHostWithoutNameIsTheDefaultRing) {
  Listener listener;
  EXPECT_EQ(decide(loopback_url_on(listener.port()), nullptr), 0);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(listener.accept_within(50), -1);
}

TEST_F(Ring, PlaceholderHostInAnyCaseCarriesOnlyTheName) {
  EXPECT_EQ(decide_raw("http://" DL_RING_PLACEHOLDER_HOST "/alert", "MyMelody3"), 1);
  EXPECT_EQ(ring_, 3);
  EXPECT_EQ(decide_raw("http://RING.Invalid:80/alert", "Bellcore-dr4"), 1);
  EXPECT_EQ(ring_, 4);
  EXPECT_EQ(decide_raw("http://ring.invalid/alert", nullptr), 0);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(ring_lines(), Lines{});
}

// ------------------------------------------------------------ fetching ----

TEST_F(Ring, WaveFileIsFetchedIntoTheCacheNamedByTheUrlsMd5) {
  TcpPeer peer;
  const std::string wav = wav_file(3000);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 1);
  EXPECT_STREQ(path_, cache_path(url).c_str());
  EXPECT_EQ(read_file(path_), wav);
  EXPECT_EQ(ring_, -1);
  peer.wait();
  const std::string path_part = url.substr(url.find('/', strlen("http://")));
  EXPECT_EQ(peer.received(0).rfind("GET " + path_part + " HTTP/1.1\r\n", 0), 0u);
  EXPECT_EQ(peer.received(0).find("Authorization"), std::string::npos);
  EXPECT_EQ(ring_lines(), Lines{});
}

TEST_F(Ring, FetchedFileWinsOverTheName) {
  TcpPeer peer;
  const std::string wav = wav_file(600);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, "ringtone-3"), 1);
  EXPECT_EQ(ring_, -1);
  EXPECT_STREQ(path_, cache_path(url).c_str());
}

TEST_F(Ring, PathIsCopiedWithStrncpysBound) {
  TcpPeer peer;
  const std::string wav = wav_file(100);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  char small[10];
  memset(small, '#', sizeof(small));
  int32_t ring = 0;
  EXPECT_EQ(dl_distinctive_ringtone_download(url.c_str(), nullptr, &ring, small, 5), 1);
  EXPECT_EQ(std::string(small, 5), "/tmp/");
  EXPECT_EQ(small[5], '#');
}

TEST_F(Ring, SecondCallFindsTheCacheFile) {
  const std::string wav = wav_file(800);
  std::string url;
  {
    TcpPeer peer;
    serve(&peer, ok_head(wav.size()) + wav);
    url = url_on(peer.port());
    ASSERT_EQ(decide(url, nullptr), 1);
  }
  capture_->clear();
  EXPECT_EQ(decide(url, nullptr), 1);  // the server is gone by now
  EXPECT_STREQ(path_, cache_path(url).c_str());
  EXPECT_EQ(read_file(path_), wav);
  EXPECT_EQ(capture_->text(), "");
}

TEST_F(Ring, CacheHitSendsNothing) {
  Listener listener;
  ASSERT_TRUE(listener.ok());
  const std::string url =
      cache_.add("http://localhost:" + std::to_string(listener.port()) + unique_path("hit"));
  const std::string cached = cache_path(url);
  quarry_test::TempDir dir;
  ASSERT_EQ(rename(dir.write("c.wav", "cached").c_str(), cached.c_str()), 0);
  EXPECT_EQ(decide(url, nullptr), 1);
  EXPECT_STREQ(path_, cached.c_str());
  EXPECT_EQ(listener.accept_within(50), -1);
  EXPECT_EQ(read_file(cached), "cached");
}

TEST_F(Ring, RifxTagWithTheRightFmtChunkIsAccepted) {
  TcpPeer peer;
  const std::string wav = wav_file(700, "RIFX");
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 1);
  EXPECT_EQ(read_file(path_), wav);
}

TEST_F(Ring, FmtChunkOfSixteenBytesIsAWrongFormat) {
  TcpPeer peer;
  const std::string wav = wav_file(700, "RIFF", 16);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 0);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(ring_lines(), Lines{"Wrong Wave Format"});
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, PcmFileIsAWrongFormatAndTheNameDecides) {
  TcpPeer peer;
  const std::string wav = wav_file(700, "RIFF", 18, 1);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, "MyMelody6"), 1);
  EXPECT_EQ(ring_, 6);
  EXPECT_EQ(ring_lines(), Lines{"Wrong Wave Format"});
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, FirstChunkShorterThanTheFmtTemplateIsAWrongFormat) {
  TcpPeer peer;
  const std::string wav = wav_file(100).substr(0, 33);  // ends one byte short
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 0);
  EXPECT_EQ(ring_lines(), Lines{"Wrong Wave Format"});
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, EmptyBodyIsAWrongFormat) {
  TcpPeer peer;
  serve(&peer, ok_head(0));
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 0);
  EXPECT_EQ(ring_lines(), Lines{"Wrong Wave Format"});
}

TEST_F(Ring, AnnouncedLengthOf204800IsAccepted) {
  TcpPeer peer;
  const std::string wav = wav_file(204800);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 1);
  EXPECT_EQ(read_file(path_), wav);
  EXPECT_EQ(ring_lines(), Lines{});
}

TEST_F(Ring, AnnouncedLengthOf204801IsRefusedBeforeAnyBodyIsRead) {
  TcpPeer peer;
  serve(&peer, ok_head(204801));  // no body follows: reading would time out
  const std::string url = url_on(peer.port());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(decide(url, "ringtone-9"), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(ring_, 9);
  EXPECT_EQ(ring_lines(), Lines{"File size exceeded"});
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
  EXPECT_TRUE(peer.wait(2000));  // the library closed the connection
}

TEST_F(Ring, NegativeAnnouncedLengthIsRefused) {
  TcpPeer peer;
  serve(&peer, "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n");
  EXPECT_EQ(decide(url_on(peer.port()), nullptr), 0);
  EXPECT_EQ(ring_lines(), Lines{"File size exceeded"});
}

TEST_F(Ring, ChunkedBodyWithoutLengthIsRefused) {
  TcpPeer peer;
  const std::string wav = wav_file(100);
  serve(&peer, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n64\r\n" + wav +
                   "\r\n0\r\n\r\n");
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 0);
  EXPECT_EQ(ring_lines(), Lines{"File size exceeded"});
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, BodyUntilCloseWithoutLengthIsRefused) {
  TcpPeer peer;
  peer.add({read_until(kHeaderEnd), send_bytes("HTTP/1.0 200 OK\r\n\r\n" + wav_file(100))});
  peer.start();
  EXPECT_EQ(decide(url_on(peer.port()), nullptr), 0);
  EXPECT_EQ(ring_lines(), Lines{"File size exceeded"});
}

TEST_F(Ring, ChunkedBodyWithAnnouncedLengthIsSaved) {
  TcpPeer peer;
  const std::string wav = wav_file(100);
  serve(&peer, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\nTransfer-Encoding: chunked\r\n\r\n"
               "64\r\n" + wav + "\r\n0\r\n\r\n");
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 1);
  EXPECT_EQ(read_file(path_), wav);
}

TEST_F(Ring, EndlessChunkedBodyStopsAtTheDownloadLimit) {
  uint32_t limit = 300000;  // above what a server may announce
  ASSERT_EQ(dl_set_option(DL_OPT_MAX_FILE_SIZE, &limit), 0);
  TcpPeer peer;
  const std::string wav = wav_file(4096);
  const std::string chunk = "1000\r\n" + std::string(4096, 'z') + "\r\n";
  std::string endless;
  for (int i = 0; i < 80; ++i) endless += chunk;  // 327680 bytes and no end
  serve(&peer, "HTTP/1.1 200 OK\r\nContent-Length: 4096\r\nTransfer-Encoding: chunked\r\n\r\n"
               "1000\r\n" + wav + "\r\n" + endless);
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 0);
  EXPECT_EQ(ring_lines(), Lines{"Down load Error"});
  struct stat st = {};
  ASSERT_EQ(stat(cache_path(url).c_str(), &st), 0);
  EXPECT_LE(st.st_size, 300000);
}

TEST_F(Ring, NotFoundIsAnOpenErrorAndTheNameDecides) {
  TcpPeer peer;
  serve(&peer, "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone");
  EXPECT_EQ(decide(url_on(peer.port()), "ringtone-3"), 1);
  EXPECT_EQ(ring_, 3);
  EXPECT_EQ(ring_lines(), Lines{"http open error, code:404, msg:Unknown Error"});
}

TEST_F(Ring, RefusedConnectionIsAnOpenError) {
  const std::string url = url_on(quarry_test::closed_port());
  EXPECT_EQ(decide(url, nullptr), 0);
  char text[256];
  dl_get_error_string(DL_ERR_CONNECT, text, sizeof(text));
  EXPECT_EQ(ring_lines(),
            Lines{"http open error, code:" + std::to_string(DL_ERR_CONNECT) + ", msg:" + text});
}

TEST_F(Ring, FailedFirstReadIsAReadError) {
  TcpPeer peer;
  peer.add({read_until(kHeaderEnd), send_bytes(ok_head(1000)), sleep_ms(100), reset_conn()});
  peer.start();
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, nullptr), 0);
  // The body reader's own line, then the ring-tone code's.
  EXPECT_EQ(ring_lines(), (Lines{"read error", "read error"}));
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, FailedReadMidBodyLeavesThePartialFileWhichLaterCountsAsCached) {
  TcpPeer peer;
  const std::string wav = wav_file(2000);
  peer.add({read_until(kHeaderEnd), send_bytes(ok_head(wav.size()) + wav.substr(0, 600)),
            sleep_ms(100), reset_conn()});
  peer.start();
  const std::string url = url_on(peer.port());
  EXPECT_EQ(decide(url, "ringtone-8"), 1);
  EXPECT_EQ(ring_, 8);  // the download failed: the name decided
  EXPECT_EQ(ring_lines(), (Lines{"read error", "Down load Error"}));
  const std::string partial = read_file(cache_path(url));
  EXPECT_GE(partial.size(), 512u);
  EXPECT_LE(partial.size(), 600u);
  EXPECT_EQ(partial, wav.substr(0, partial.size()));
  capture_->clear();
  EXPECT_EQ(decide(url, nullptr), 1);
  EXPECT_STREQ(path_, cache_path(url).c_str());
  EXPECT_EQ(capture_->text(), "");
}

TEST_F(Ring, LinkPlantedAtTheCachePathIsNotWrittenThrough) {
  TcpPeer peer;
  const std::string wav = wav_file(300);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  quarry_test::TempDir dir;
  const std::string target = dir.file("victim");
  ASSERT_EQ(symlink(target.c_str(), cache_path(url).c_str()), 0);
  EXPECT_EQ(decide(url, nullptr), 0);
  EXPECT_EQ(ring_lines(), Lines{"can't open file:" + cache_path(url)});
  EXPECT_FALSE(quarry_test::file_exists(target));
}

TEST_F(Ring, FailedWriteIsADownloadError) {
  TcpPeer peer;
  const std::string wav = wav_file(150000);
  serve(&peer, ok_head(wav.size()) + wav);
  const std::string url = url_on(peer.port());
  // In a child, files may not grow past 64 KiB; its log file stays far
  // below that.
  const std::string got = quarry_test::run_in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit small = {65536, 65536};
    if (setrlimit(RLIMIT_FSIZE, &small) != 0) return std::string("setrlimit failed");
    const int result = decide(url, nullptr);
    std::string out = std::to_string(result);
    for (const std::string &line : ring_lines()) out += "|" + line;
    return out;
  });
  EXPECT_EQ(got, "0|Down load Error");
}

}  // namespace

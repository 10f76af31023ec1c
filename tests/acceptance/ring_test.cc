// Distinctive ring tones through dl_distinctive_ringtone_download: name
// lookups (built-in prefixes, the configured table), URLs that only carry a
// name, and WAV downloads into the /tmp cache from scripted HTTP peers.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "quarry.h"
#include "tests/peer/listener.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::Listener;
using quarry_test::LogCapture;
using quarry_test::Script;
using quarry_test::TcpPeer;

constexpr unsigned kHttp = 3;
constexpr int kError = 3;
constexpr size_t kAnnouncedLimit = 204800;
constexpr size_t kWavHead = 34;

std::string md5_hex(const std::string &text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(text.data(), text.size(), digest, &len, EVP_md5(), nullptr);
  std::string hex;
  char two[3];
  for (unsigned int i = 0; i < len; ++i) {
    snprintf(two, sizeof(two), "%02x", digest[i]);
    hex += two;
  }
  return hex;
}

std::string cache_path(const std::string &url) { return "/tmp/" + md5_hex(url) + ".wav"; }

// The 34-byte head of a G.711 mu-law mono 8 kHz file, as the phone wants it.
std::string good_head() {
  std::string head = "RIFF";
  head += std::string("\x24\x10\x00\x00", 4);
  head += "WAVEfmt ";
  head += std::string("\x12\x00\x00\x00", 4);           // fmt size 18
  head += std::string("\x07\x00", 2);                   // mu-law
  head += std::string("\x01\x00", 2);                   // mono
  head += std::string("\x40\x1f\x00\x00", 4);           // 8000 Hz
  head += std::string("\x40\x1f\x00\x00", 4);           // 8000 bytes/s
  head += std::string("\x01\x00", 2);                   // block align
  return head;
}

// A whole file of |size| bytes: the head, then varied sample bytes.
std::string wav_file(size_t size, const std::string &head = good_head()) {
  std::string data = head;
  for (size_t i = data.size(); i < size; ++i) data.push_back(static_cast<char>(i * 7 + 3));
  data.resize(size);
  return data;
}

std::string response_head(size_t length) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(length) +
         "\r\nConnection: close\r\n\r\n";
}

Script serve(const std::string &head, const std::string &body) {
  return {quarry_test::read_until("\r\n\r\n"), quarry_test::send_bytes(head + body),
          quarry_test::close_conn()};
}

class Ring : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    capture_.reset(new LogCapture());
  }
  void TearDown() override {
    for (const std::string &path : created_) unlink(path.c_str());
    capture_.reset();
    dl_exit();
  }

  // A URL on |port| no other test (or earlier run) uses; its cache file is
  // removed before and after the test.
  // Downloads go to "localhost": 127.0.0.1 written out only carries a name.
  std::string unique_url(uint16_t port, const char *tag, const char *host = "localhost") {
    std::string url = std::string("http://") + host + ":" + std::to_string(port) + "/ring-" + tag + "-" +
                      std::to_string(getpid()) + "-" + std::to_string(counter_++) + ".wav";
    forget(url);
    return url;
  }
  // Starts |peer| with one connection's |script| and returns a fresh URL on it.
  std::string serve_on(TcpPeer *peer, Script script, const char *tag) {
    peer->add(std::move(script));
    peer->start();
    return unique_url(peer->port(), tag);
  }
  // Puts a file in the cache for |url|, as an earlier call would have.
  static bool precache(const std::string &url) {
    FILE *f = fopen(cache_path(url).c_str(), "wb");
    if (f == nullptr) return false;
    fputs("cached", f);
    return fclose(f) == 0;
  }
  void forget(const std::string &url) {
    created_.push_back(cache_path(url));
    unlink(cache_path(url).c_str());
  }

  int call(const char *url, const char *name) {
    ring_ = 42;
    memset(path_, 'Z', sizeof(path_));
    path_[sizeof(path_) - 1] = '\0';
    return dl_distinctive_ringtone_download(url, name, &ring_, path_, sizeof(path_));
  }

  static void set_entry(uint8_t slot, uint8_t ring, const char *name) {
    uint8_t entry[DL_RING_ENTRY_SIZE] = {};
    entry[0] = slot;
    entry[1] = ring;
    strncpy(reinterpret_cast<char *>(entry + 2), name, DL_RING_ENTRY_SIZE - 3);
    ASSERT_EQ(0, dl_set_option(DL_OPT_RING_ENTRY, entry));
  }

  bool logged(const std::string &message) const { return capture_->has(kHttp, kError, message); }
  const LogCapture &log() const { return *capture_; }

  std::unique_ptr<LogCapture> capture_;
  std::vector<std::string> created_;
  int counter_ = 0;
  int32_t ring_ = 42;
  char path_[128];
};

// --- exported data ---------------------------------------------------------

TEST(RingData, RingTabHoldsTheThreePrefixesInOrder) {
  ASSERT_NE(nullptr, ring_tab[0]);
  EXPECT_STREQ("ringtone-", ring_tab[0]);
  ASSERT_NE(nullptr, ring_tab[1]);
  EXPECT_STREQ("Bellcore-dr", ring_tab[1]);
  ASSERT_NE(nullptr, ring_tab[2]);
  EXPECT_STREQ("MyMelody", ring_tab[2]);
  EXPECT_EQ(nullptr, ring_tab[3]);
}

TEST(RingData, WaveFmtIsTheMuLawTemplate) {
  const std::string head = good_head();
  EXPECT_EQ(0, memcmp(head.data() + 8, wave_fmt, sizeof(wave_fmt)));
}

TEST(RingData, CachePathHelperIsRfc1321Md5) {
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5_hex("abc"));
}

// --- parameters ------------------------------------------------------------

TEST_F(Ring, NullRingOutGivesDefaultWithTheLogLine) {
  char path[64] = {};
  EXPECT_EQ(0, dl_distinctive_ringtone_download(nullptr, "ringtone-5", nullptr, path, sizeof(path)));
  EXPECT_TRUE(logged("Invalid Parameter, Try to use default ringtone\n")) << log().text();
}

TEST_F(Ring, NullPathOutGivesDefaultWithTheLogLine) {
  int32_t ring = 42;
  EXPECT_EQ(0, dl_distinctive_ringtone_download(nullptr, "ringtone-5", &ring, nullptr, 64));
  EXPECT_TRUE(logged("Invalid Parameter, Try to use default ringtone\n")) << log().text();
}

TEST_F(Ring, NoUrlAndNoNameIsTheDefaultRing) {
  EXPECT_EQ(0, call(nullptr, nullptr));
  EXPECT_EQ(-1, ring_);
  EXPECT_EQ(0, call("", ""));
  EXPECT_EQ(-1, ring_);
}

// --- name lookup -----------------------------------------------------------

TEST_F(Ring, BuiltInPrefixesIgnoreCaseAndCarryTheNumber) {
  for (const char *name : {"ringtone-5", "RINGTONE-5", "MyMelody5", "mymelody5"}) {
    EXPECT_EQ(1, call(nullptr, name)) << name;
    EXPECT_EQ(5, ring_) << name;
  }
  EXPECT_EQ(1, call("", "Bellcore-dr3"));
  EXPECT_EQ(3, ring_);
}

TEST_F(Ring, PrefixWithoutNumberIsFoundButLeavesRingAtMinusOne) {
  EXPECT_EQ(1, call(nullptr, "Bellcore-dr"));
  EXPECT_EQ(-1, ring_);
  EXPECT_EQ(1, call(nullptr, "ringtone-abc"));
  EXPECT_EQ(-1, ring_);
}

TEST_F(Ring, UnknownNameIsTheDefaultRingWithRingMinusOne) {
  EXPECT_EQ(0, call(nullptr, "Classic"));
  EXPECT_EQ(-1, ring_);
}

TEST_F(Ring, ConfiguredNameMatchesWholeNameIgnoringCase) {
  set_entry(2, 7, "Jazz");
  EXPECT_EQ(1, call(nullptr, "jAZZ"));
  EXPECT_EQ(7, ring_);
  EXPECT_EQ(0, call(nullptr, "Jazzy"));
  EXPECT_EQ(-1, ring_);
  EXPECT_EQ(0, call(nullptr, "Jaz"));
  EXPECT_EQ(-1, ring_);
}

TEST_F(Ring, FirstConfiguredSlotWins) {
  set_entry(6, 9, "Office");
  set_entry(1, 4, "office");
  EXPECT_EQ(1, call(nullptr, "OFFICE"));
  EXPECT_EQ(4, ring_);
}

TEST_F(Ring, BuiltInPrefixComesBeforeConfiguredTable) {
  set_entry(0, 8, "MyMelody2");
  EXPECT_EQ(1, call(nullptr, "MyMelody2"));
  EXPECT_EQ(2, ring_);
}

// --- URLs that do not parse or only carry a name --------------------------

TEST_F(Ring, UnparsedUrlTextIsLookedUpWhenNoName) {
  EXPECT_EQ(1, call("Bellcore-dr2", nullptr));
  EXPECT_EQ(2, ring_);
}

TEST_F(Ring, UnparsedUrlDefersToTheName) {
  EXPECT_EQ(1, call("Bellcore-dr2", "MyMelody6"));
  EXPECT_EQ(6, ring_);
  EXPECT_EQ(0, call("ftp://host/a.wav", "Unknown"));
  EXPECT_EQ(-1, ring_);
}

TEST_F(Ring, EmptyNameCountsAsNoName) {
  EXPECT_EQ(1, call("Bellcore-dr2", ""));
  EXPECT_EQ(2, ring_);
}

TEST_F(Ring, LoopbackHostWithNameSendsNothing) {
  Listener listener;
  ASSERT_TRUE(listener.ok());
  const std::string url = unique_url(listener.port(), "loop", "127.0.0.1");
  EXPECT_EQ(1, call(url.c_str(), "Bellcore-dr2"));
  EXPECT_EQ(2, ring_);
  EXPECT_EQ(-1, listener.accept_within(0));
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, LoopbackHostWithoutNameIsTheDefaultRing) {
  Listener listener;
  ASSERT_TRUE(listener.ok());
  const std::string url = unique_url(listener.port(), "loopnoname", "127.0.0.1");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_EQ(-1, ring_);
  EXPECT_EQ(-1, listener.accept_within(0));
}

TEST_F(Ring, LoopbackHostUsesTheConfiguredTable) {
  set_entry(3, 11, "Piano");
  Listener listener;
  ASSERT_TRUE(listener.ok());
  const std::string url = unique_url(listener.port(), "loopcfg", "127.0.0.1");
  EXPECT_EQ(1, call(url.c_str(), "piano"));
  EXPECT_EQ(11, ring_);
  EXPECT_EQ(-1, listener.accept_within(0));
}

TEST_F(Ring, PlaceholderHostIgnoresCaseAndIsNeverFetched) {
  const std::string url = std::string("http://RING.Invalid/") + "tone.wav";
  forget(url);
  EXPECT_EQ(1, call(url.c_str(), "MyMelody4"));
  EXPECT_EQ(4, ring_);
  EXPECT_FALSE(log().mentions("http open error")) << log().text();
  EXPECT_EQ(0, call(("http://" DL_RING_PLACEHOLDER_HOST "/x"), "nothing-known"));
  EXPECT_EQ(-1, ring_);
  EXPECT_FALSE(log().mentions("http open error")) << log().text();
}

// --- downloads -------------------------------------------------------------

TEST_F(Ring, DownloadFillsTheCacheAndReturnsItsPath) {
  TcpPeer peer;
  const std::string body = wav_file(1500);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "get");
  ASSERT_EQ(1, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(cache_path(url), std::string(path_));
  EXPECT_EQ(-1, ring_);
  EXPECT_EQ(body, quarry_test::read_file(cache_path(url)));
  const size_t slash = url.find('/', strlen("http://"));
  EXPECT_EQ(0u, peer.received(0).find("GET " + url.substr(slash) + " HTTP/1.1\r\n"))
      << peer.received(0);
  // The request carries only the URL: no credentials.
  EXPECT_EQ(std::string::npos, peer.received(0).find("Authorization")) << peer.received(0);
}

TEST_F(Ring, SecondCallUsesTheCacheWithoutTraffic) {
  TcpPeer peer;
  const std::string body = wav_file(600);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "twice");
  ASSERT_EQ(1, call(url.c_str(), nullptr));
  ASSERT_TRUE(peer.wait(2000));
  capture_->clear();
  EXPECT_EQ(1, call(url.c_str(), "MyMelody3"));
  EXPECT_EQ(cache_path(url), std::string(path_));
  EXPECT_EQ(-1, ring_);
  EXPECT_EQ(1u, peer.connections());
}

TEST_F(Ring, ExistingCacheFileIsTakenWithoutConnecting) {
  Listener listener;
  ASSERT_TRUE(listener.ok());
  const std::string url = unique_url(listener.port(), "pre");
  ASSERT_TRUE(precache(url));
  EXPECT_EQ(1, call(url.c_str(), nullptr));
  EXPECT_EQ(cache_path(url), std::string(path_));
  EXPECT_EQ(-1, listener.accept_within(0));
}

TEST_F(Ring, PathIsCopiedWithTheCallersBound) {
  Listener listener;
  ASSERT_TRUE(listener.ok());
  const std::string url = unique_url(listener.port(), "bound");
  ASSERT_TRUE(precache(url));
  int32_t ring = 0;
  char path[16];
  memset(path, 'Z', sizeof(path));
  EXPECT_EQ(1, dl_distinctive_ringtone_download(url.c_str(), nullptr, &ring, path, 10));
  EXPECT_EQ(0, memcmp(path, cache_path(url).data(), 10));
  EXPECT_EQ('Z', path[10]);
}

TEST_F(Ring, RifxTagIsAcceptedWhenTheFmtChunkIsRight) {
  TcpPeer peer;
  std::string head = good_head();
  head.replace(0, 4, "RIFX");
  const std::string body = wav_file(700, head);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "rifx");
  EXPECT_EQ(1, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(body, quarry_test::read_file(cache_path(url)));
}

TEST_F(Ring, FmtSizeSixteenIsAWrongWaveFormat) {
  TcpPeer peer;
  std::string head = good_head();
  head[16] = 16;
  const std::string body = wav_file(700, head);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "fmt16");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(-1, ring_);
  EXPECT_TRUE(logged("Wrong Wave Format\n")) << log().text();
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, EachTemplateByteIsChecked) {
  // Offset 8 ("W"), a channel count and the block align.
  for (size_t offset : {size_t{8}, size_t{22}, size_t{33}}) {
    TcpPeer peer;
    std::string head = good_head();
    head[offset] = static_cast<char>(head[offset] ^ 0x20);
    const std::string body = wav_file(100, head);
    const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "byte");
    capture_->clear();
    EXPECT_EQ(0, call(url.c_str(), nullptr)) << offset;
    EXPECT_TRUE(peer.wait(2000));
    EXPECT_TRUE(logged("Wrong Wave Format\n")) << offset << log().text();
    EXPECT_FALSE(quarry_test::file_exists(cache_path(url))) << offset;
  }
}

TEST_F(Ring, BytesAfterTheTemplateAreNotExamined) {
  TcpPeer peer;
  std::string body = wav_file(kWavHead);
  body += std::string("\xff\xff\xff\xff", 4);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "after");
  EXPECT_EQ(1, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(body, quarry_test::read_file(cache_path(url)));
}

TEST_F(Ring, FirstChunkShorterThanTheHeadIsAWrongWaveFormat) {
  TcpPeer peer;
  const std::string body = good_head().substr(0, 20);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "short");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_TRUE(logged("Wrong Wave Format\n")) << log().text();
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, WrongFormatFallsBackToTheName) {
  TcpPeer peer;
  const std::string body = std::string(200, 'x');
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "fallback");
  EXPECT_EQ(1, call(url.c_str(), "ringtone-8"));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(8, ring_);
  EXPECT_TRUE(logged("Wrong Wave Format\n")) << log().text();
}

TEST_F(Ring, AnnouncedLengthAboveTheLimitIsRefusedBeforeTheBody) {
  TcpPeer peer;
  // Only the head: a client that read the body would wait for it.
  const std::string url = serve_on(&peer, {quarry_test::read_until("\r\n\r\n"),
            quarry_test::send_bytes(response_head(kAnnouncedLimit + 1)),
            quarry_test::read_to_end()}, "big");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_TRUE(logged("File size exceeded\n")) << log().text();
  EXPECT_FALSE(logged("read error\n"));
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, AnnouncedLengthAtTheLimitIsAccepted) {
  TcpPeer peer;
  const std::string body = wav_file(kAnnouncedLimit);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "limit");
  EXPECT_EQ(1, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(5000));
  EXPECT_EQ(cache_path(url), std::string(path_));
  EXPECT_EQ(body.size(), quarry_test::read_file(cache_path(url)).size());
}

TEST_F(Ring, UnknownLengthIsRefusedLikeAnOversizedOne) {
  TcpPeer peer;
  const std::string body = wav_file(300);
  const std::string url = serve_on(&peer, serve("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n", body), "nolength");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_TRUE(logged("File size exceeded\n")) << log().text();
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, OversizedFetchFallsBackToTheName) {
  TcpPeer peer;
  const std::string url = serve_on(&peer, serve(response_head(kAnnouncedLimit + 1), ""), "bigname");
  EXPECT_EQ(1, call(url.c_str(), "Bellcore-dr4"));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(4, ring_);
}

TEST_F(Ring, CutOffDownloadLeavesAPartialFileTakenAsCachedLater) {
  TcpPeer peer;
  const std::string body = wav_file(2000);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body.substr(0, 1000)), "cut");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(-1, ring_);
  EXPECT_TRUE(logged("Down load Error\n")) << log().text();
  ASSERT_TRUE(quarry_test::file_exists(cache_path(url)));
  EXPECT_EQ(body.substr(0, quarry_test::read_file(cache_path(url)).size()),
            quarry_test::read_file(cache_path(url)));
  EXPECT_EQ(1, call(url.c_str(), nullptr));
  EXPECT_EQ(cache_path(url), std::string(path_));
  EXPECT_EQ(1u, peer.connections());
}

TEST_F(Ring, BodyMissingAfterTheHeadIsAReadError) {
  TcpPeer peer;
  const std::string url = serve_on(&peer, serve(response_head(100), ""), "nobody");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(-1, ring_);
  EXPECT_TRUE(logged("read error\n")) << log().text();
  EXPECT_FALSE(logged("Wrong Wave Format\n"));
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, UncreatableCacheFileLogsItsPathAndFallsBackToTheName) {
  TcpPeer peer;
  const std::string body = wav_file(300);
  const std::string url = serve_on(&peer, serve(response_head(body.size()), body), "nocreate");
  // A dangling link whose target lies in a missing directory: the file is
  // absent, and creating it fails.
  const std::string target = "/tmp/quarry-ring-missing-" + std::to_string(getpid()) + "/x.wav";
  ASSERT_EQ(0, symlink(target.c_str(), cache_path(url).c_str()));
  EXPECT_EQ(1, call(url.c_str(), "ringtone-9"));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(9, ring_);
  EXPECT_TRUE(logged("can't open file:" + cache_path(url) + "\n")) << log().text();
}

TEST_F(Ring, ConnectFailureLogsTheOpenErrorAndGivesDefault) {
  const uint16_t port = quarry_test::closed_port();
  const std::string url = unique_url(port, "refused");
  EXPECT_EQ(0, call(url.c_str(), nullptr));
  EXPECT_EQ(-1, ring_);
  char text[256] = {};
  dl_get_error_string(DL_ERR_CONNECT, text, sizeof(text));
  EXPECT_TRUE(logged("http open error, code:" + std::to_string(DL_ERR_CONNECT) + ", msg:" +
                     text + "\n"))
      << log().text();
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

TEST_F(Ring, HttpStatusErrorLogsTheStatusAndFallsBackToTheName) {
  TcpPeer peer;
  const std::string url = serve_on(&peer, serve("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", ""), "404");
  EXPECT_EQ(1, call(url.c_str(), "MyMelody1"));
  EXPECT_TRUE(peer.wait(2000));
  EXPECT_EQ(1, ring_);
  char text[256] = {};
  dl_get_error_string(404, text, sizeof(text));
  EXPECT_TRUE(logged(std::string("http open error, code:404, msg:") + text + "\n"))
      << log().text();
  EXPECT_FALSE(quarry_test::file_exists(cache_path(url)));
}

}  // namespace

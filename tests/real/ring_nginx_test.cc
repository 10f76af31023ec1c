// Distinctive ring tones fetched from a real nginx: G.711 mu-law WAV files
// made by sox are taken and cached, other formats and oversized files are
// refused.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/ring/ring_test_support.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace quarry_test {
namespace {

using quarry_ring_test::cache_path;

class RingNginx : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = &RealServer::shared("nginx");
    QUARRY_REQUIRE_SERVER(*server_);
    dl_exit();
    dl_config_init();
    uint32_t timeout = 10;
    ASSERT_EQ(dl_set_option(DL_OPT_TIMEOUT, &timeout), 0);
    log_ = std::make_unique<LogCapture>();
  }
  void TearDown() override {
    log_.reset();
    dl_exit();
    libq_log_exit();
    for (const std::string &file : made_) unlink(file.c_str());
  }

  // Makes |name| in the server's files/ with "sox -n <sox_args> FILE
  // synth <seconds> sine 440" and returns its URL, whose cache file is
  // removed around the test.
  std::string make(const std::string &sox_args, const std::string &seconds) {
    const std::string name = quarry_ring_test::unique_path("ring").substr(1);
    const std::string file = server_->doc_root() + "/files/" + name;
    const std::string command =
        "sox -n " + sox_args + " '" + file + "' synth " + seconds + " sine 440 2>&1";
    made_.push_back(file);
    EXPECT_EQ(system(command.c_str()), 0) << command;
    return served("/files/" + name);
  }
  // The URL of |path| on the server by name: 127.0.0.1 would only carry a
  // ring name. Its cache file is removed around the test.
  std::string served(const std::string &path) {
    return cache_.add("http://localhost:" + std::to_string(server_->port("http")) + path);
  }
  std::string file_of(const std::string &url) const {
    return server_->doc_root() + url.substr(url.find("/files/"));
  }
  int decide(const std::string &url, const char *name = nullptr) {
    ring_ = 0;
    path_[0] = '\0';
    return dl_distinctive_ringtone_download(url.c_str(), name, &ring_, path_, sizeof(path_));
  }
  bool logged(const std::string &message) const {
    return log_->has(DL_LOG_MODULE_HTTP, 3, message);
  }
  // Requests for |url| in nginx's access log, once it holds at least
  // |expected| of them or two seconds passed: nginx writes the line after
  // the response is out.
  size_t requests_for(const std::string &url, size_t expected) const {
    size_t n = count_requests(url);
    for (int i = 0; i < 200 && n < expected; ++i) {
      usleep(10000);
      n = count_requests(url);
    }
    return n;
  }
  size_t count_requests(const std::string &url) const {
    const std::string log = read_file(server_->path("logs/access.log"));
    const std::string request = "GET " + url.substr(url.find("/files/")) + " ";
    size_t n = 0;
    for (size_t at = log.find(request); at != std::string::npos; at = log.find(request, at + 1)) {
      ++n;
    }
    return n;
  }

  RealServer *server_ = nullptr;
  std::unique_ptr<LogCapture> log_;
  quarry_ring_test::CacheFiles cache_;
  std::vector<std::string> made_;
  int32_t ring_ = 0;
  char path_[64];
};

constexpr const char *kMuLaw = "-r 8000 -c 1 -e mu-law";

TEST_F(RingNginx, SoxMuLawFileCarriesTheExpectedFmtChunk) {
  const std::string url = make(kMuLaw, "0.5");
  const std::string wav = read_file(file_of(url));
  ASSERT_GE(wav.size(), 34u);
  EXPECT_EQ(wav.substr(8, 26), std::string(reinterpret_cast<const char *>(wave_fmt), 26));
}

TEST_F(RingNginx, MuLawFileIsFetchedThenServedFromTheCache) {
  const std::string url = make(kMuLaw, "1");
  EXPECT_EQ(decide(url), 1);
  EXPECT_STREQ(path_, cache_path(url).c_str());
  EXPECT_EQ(read_file(path_), read_file(file_of(url)));
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(requests_for(url, 1), 1u);

  log_->clear();
  EXPECT_EQ(decide(url, "ringtone-2"), 1);
  EXPECT_STREQ(path_, cache_path(url).c_str());
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(requests_for(url, 1), 1u);
  EXPECT_EQ(log_->text(), "");
}

TEST_F(RingNginx, PcmFileIsRefusedAsWrongFormat) {
  const std::string url = make("-r 8000 -c 1 -e signed -b 16", "0.5");
  EXPECT_EQ(decide(url), 0);
  EXPECT_EQ(ring_, -1);
  EXPECT_TRUE(logged("Wrong Wave Format\n"));
  EXPECT_FALSE(file_exists(cache_path(url)));
}

TEST_F(RingNginx, ALawFileIsRefusedAndTheNameDecides) {
  const std::string url = make("-r 8000 -c 1 -e a-law", "0.5");
  EXPECT_EQ(decide(url, "Bellcore-dr3"), 1);
  EXPECT_EQ(ring_, 3);
  EXPECT_TRUE(logged("Wrong Wave Format\n"));
  EXPECT_FALSE(file_exists(cache_path(url)));
}

TEST_F(RingNginx, MuLawAtAnotherRateIsRefused) {
  const std::string url = make("-r 16000 -c 1 -e mu-law", "0.5");
  EXPECT_EQ(decide(url), 0);
  EXPECT_TRUE(logged("Wrong Wave Format\n"));
}

TEST_F(RingNginx, MuLawFileAbove204800BytesIsRefused) {
  const std::string url = make(kMuLaw, "26");  // 208000 samples
  EXPECT_EQ(decide(url), 0);
  EXPECT_TRUE(logged("File size exceeded\n"));
  EXPECT_FALSE(file_exists(cache_path(url)));
}

TEST_F(RingNginx, MissingFileFallsBackToTheName) {
  const std::string url = served("/files/no-such-ring.wav");
  EXPECT_EQ(decide(url, "MyMelody7"), 1);
  EXPECT_EQ(ring_, 7);
  EXPECT_TRUE(logged("http open error, code:404, msg:Unknown Error\n"));
}

}  // namespace
}  // namespace quarry_test

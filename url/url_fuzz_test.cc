// Mutated and random URLs through both parsers and the rebuild, with a
// fixed seed so that every run (and the sanitizer build) sees the same
// inputs. Besides not crashing, accepted results must hold together.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "url/url_test_env.h"

namespace {

using quarry_test::free_parts;
using quarry_test::LogCapture;
using quarry_test::UrlTest;

constexpr unsigned kSeed = 20240611;
constexpr int kRounds = 20000;
constexpr int kMaxPort = 65535;

const char *const kSeeds[] = {
    "http://host/path",
    "https://u:p@[fe80::1%25eth0]:8443/a/b?c=d#e",
    "ftp://bob:secret@[::1]:2121/up/",
    "tftp://10.0.0.1/cfg/a.bin",
    "192.168.1.5/cfg/a.bin",
    "HTTP://host/x",
    "http://a@b:c@host:65535/",
    "  https://host:/p q\t\r\n",
    "http://[::1]junk:81/?x=http://y",
    "gopher://x/",
    "",
};

// Characters that steer the parsers, weighted above random bytes.
const char kInteresting[] = "[]:@/?#% \t\r\n0123456789hHtTpPsSfF.";

std::string mutate(std::mt19937 &rng, std::string text) {
  std::uniform_int_distribution<int> op_pick(0, 5);
  int edits = 1 + static_cast<int>(rng() % 4);
  for (int e = 0; e < edits; ++e) {
    size_t at = text.empty() ? 0 : rng() % (text.size() + 1);
    char c = (rng() % 3 == 0) ? static_cast<char>(1 + rng() % 255)
                              : kInteresting[rng() % (sizeof(kInteresting) - 1)];
    switch (op_pick(rng)) {
      case 0:
        text.insert(at, 1, c);
        break;
      case 1:
        if (at < text.size()) text.erase(at, 1 + rng() % 3);
        break;
      case 2:
        if (at < text.size()) text[at] = c;
        break;
      case 3:
        text.insert(at, kSeeds[rng() % (sizeof(kSeeds) / sizeof(kSeeds[0]))]);
        break;
      case 4:
        text.insert(at, std::string(1 + rng() % 8, c));
        break;
      default:
        text = text.substr(0, at);
        break;
    }
  }
  return text;
}

// A URL that split must survive its rebuild with the same host, port and
// path and without its login.
void check_split(const std::string &url, bool ipv6) {
  dl_url_parts parts;
  if (url_split(url.c_str(), &parts) != 0) {
    free_parts(&parts);
    return;
  }
  ASSERT_LT(parts.scheme, static_cast<uint32_t>(DL_SCHEME_NONE)) << url;
  ASSERT_NE(parts.host, nullptr) << url;
  ASSERT_NE(parts.host[0], '\0') << url;
  ASSERT_NE(parts.path, nullptr) << url;
  ASSERT_EQ(parts.path[0], '/') << url;
  ASSERT_GE(parts.port, 0) << url;
  ASSERT_LE(parts.port, kMaxPort) << url;
  ASSERT_EQ(parts.user == nullptr, parts.password == nullptr) << url;

  dl_request request = {const_cast<char *>(url.c_str()), nullptr, nullptr, nullptr};
  dl_http_param out{};
  ASSERT_EQ(url_rebuild(&request, &out, &parts), 0) << url;
  dl_url_parts again;
  int resplit = url_split(out.url, &again);
  // Brackets put around a plain host need IPv6 on to be read back, and a
  // host that itself holds "]" is cut there when read back; both are how
  // the rebuild has always worked.
  if (ipv6 && strchr(parts.host, ']') == nullptr) {
    EXPECT_EQ(resplit, 0) << url << " -> " << out.url;
    if (resplit == 0) {
      EXPECT_EQ(again.scheme, parts.scheme) << out.url;
      EXPECT_STREQ(again.host, parts.host) << out.url;
      EXPECT_EQ(again.port, parts.port) << out.url;
      EXPECT_STREQ(again.path, parts.path) << out.url;
      EXPECT_EQ(again.user, nullptr) << out.url;
    }
  }
  free_parts(&again);
  free(out.url);
  free_parts(&parts);
}

void check_parse(const std::string &url) {
  int err = 1;
  dl_url *u = dl_url_parse(url.c_str(), "u", nullptr, &err);
  if (u == nullptr) {
    EXPECT_TRUE(err == DL_ERR_URL || err == DL_ERR_IPV6_DISABLED) << url << " err " << err;
    return;
  }
  EXPECT_EQ(err, 0) << url;
  EXPECT_LE(u->scheme, static_cast<uint32_t>(DL_URL_SCHEME_HTTPS)) << url;
  EXPECT_NE(u->host[0], '\0') << url;
  EXPECT_EQ(u->path[0], '/') << url;
  EXPECT_EQ(strchr(u->path, ' '), nullptr) << url;
  EXPECT_GE(u->port, 0) << url;
  EXPECT_LE(u->port, kMaxPort) << url;
  EXPECT_STREQ(u->user, "u") << url;
  dl_url_free(u);
}

class UrlFuzz : public UrlTest {};

TEST_F(UrlFuzz, MutatedUrlsKeepTheParsersConsistent) {
  std::mt19937 rng(kSeed);
  LogCapture capture;
  for (int round = 0; round < kRounds; ++round) {
    bool ipv6 = (round % 2) == 0;
    set_ipv6(ipv6);
    std::string url = mutate(rng, kSeeds[rng() % (sizeof(kSeeds) / sizeof(kSeeds[0]))]);
    check_split(url, ipv6);
    check_parse(url);
    if (::testing::Test::HasFatalFailure()) return;
    // Keep the capture file small; its contents are not under test here.
    if (round % 512 == 0) capture.clear();
  }
}

TEST_F(UrlFuzz, RandomBytesAreRefusedOrParsedSafely) {
  std::mt19937 rng(kSeed + 1);
  LogCapture capture;
  set_ipv6(true);
  for (int round = 0; round < kRounds / 4; ++round) {
    std::string url(rng() % 64, '\0');
    for (auto &c : url) c = static_cast<char>(1 + rng() % 255);
    check_split(url, true);
    check_parse(url);
    if (::testing::Test::HasFatalFailure()) return;
    if (round % 512 == 0) capture.clear();
  }
}

}  // namespace

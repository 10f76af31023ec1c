// "quarry ring" as a caller runs it: the decision on standard output.
#include <gtest/gtest.h>

#include <string>

#include "tests/peer/scripted_peer.h"
#include "tests/ring/ring_test_support.h"
#include "tests/support/log_capture.h"
#include "tools/cli_test_support.h"

namespace {

using quarry_cli_test::CliRun;

CliRun ring(const std::string &args) { return quarry_cli_test::run("ring " + args); }

TEST(QuarryRing, NamePrintsTheRingNumber) {
  const CliRun r = ring("'' Bellcore-dr3");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "ring 3\n");
}

TEST(QuarryRing, NothingFoundPrintsDefault) {
  const CliRun r = ring("http://ring.invalid/alert Jazz");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "default\n");
}

TEST(QuarryRing, FetchedFilePrintsItsCachePathTwice) {
  quarry_test::TcpPeer peer;
  const std::string wav = quarry_ring_test::wav_file(500);
  peer.add({quarry_test::read_until("\r\n\r\n"),
            quarry_test::send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 500\r\n\r\n" + wav),
            quarry_test::read_to_end()});
  peer.start();
  quarry_ring_test::CacheFiles cache;
  const std::string url = cache.add("http://localhost:" + std::to_string(peer.port()) +
                                    quarry_ring_test::unique_path("cli"));
  const std::string expected = quarry_ring_test::cache_path(url) + "\n";
  CliRun r = ring(url);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected);
  EXPECT_EQ(quarry_test::read_file(quarry_ring_test::cache_path(url)), wav);
  r = ring(url + " ringtone-1");  // from the cache: the peer is done
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected);
}

TEST(QuarryRing, VerboseShowsTheLibraryLog) {
  const CliRun r = ring("-v 'Bellcore-dr' ''");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("ring -1\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("DCMN<3+error > Invalid URL\n"), std::string::npos) << r.out;
}

TEST(QuarryRing, MissingUrlIsAUsageError) {
  const CliRun r = ring("");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out.rfind("usage: quarry ring URL [NAME] [-v]\n", 0), 0u) << r.out;
}

TEST(QuarryRing, UnknownOptionNamesItself) {
  const CliRun r = ring("--loud url");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out.rfind("quarry: unknown option --loud\n", 0), 0u) << r.out;
}

}  // namespace

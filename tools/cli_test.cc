// The quarry tool as a caller runs it: exit status, standard output and the
// failure line on standard error.
#include <gtest/gtest.h>

#include <string>

#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"
#include "tools/cli_test_support.h"

namespace {

using quarry_cli_test::CliRun;
using quarry_cli_test::run;

std::string serve_once(quarry_test::TcpPeer &peer, const std::string &response) {
  peer.add({quarry_test::read_until("\r\n\r\n"), quarry_test::send_bytes(response),
            quarry_test::close_conn()});
  peer.start();
  return "http://127.0.0.1:" + std::to_string(peer.port());
}

TEST(QuarryCli, GetStreamsBodyToStandardOutput) {
  quarry_test::TcpPeer peer;
  std::string base = serve_once(peer, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
  CliRun r = run("get " + base + "/f.txt");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "hello");
}

TEST(QuarryCli, GetToFileSavesIt) {
  quarry_test::TcpPeer peer;
  std::string base = serve_once(peer, "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ndata");
  quarry_test::TempDir dir;
  CliRun r = run("get " + base + "/f.bin -o " + dir.file("f.bin"));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(quarry_test::read_file(dir.file("f.bin")), "data");
}

TEST(QuarryCli, FailureReportsCodeAndText) {
  quarry_test::TcpPeer peer;
  std::string base = serve_once(peer, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
  CliRun r = run("get " + base + "/missing");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "quarry: failed: HTTP 404 Not Found\n");
}

TEST(QuarryCli, PutSendsTheFileWithExtraHeader) {
  quarry_test::TcpPeer peer;
  peer.add({quarry_test::read_until("payload"),
            quarry_test::send_bytes("HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n"),
            quarry_test::close_conn()});
  peer.start();
  quarry_test::TempDir dir;
  std::string file = dir.write("up.txt", "payload");
  CliRun r = run("put " + file + " http://127.0.0.1:" + std::to_string(peer.port()) +
              "/up.txt --put --header 'X-Phone: 1'");
  EXPECT_EQ(r.status, 0) << r.out;
  ASSERT_TRUE(peer.wait());
  std::string sent = peer.received(0);
  EXPECT_EQ(sent.rfind("PUT /up.txt HTTP/1.1\r\n", 0), 0u) << sent;
  EXPECT_NE(sent.find("\r\nX-Phone: 1\r\n"), std::string::npos) << sent;
}

TEST(QuarryCli, SetRefusesUnknownNamesAndBadValues) {
  EXPECT_EQ(run("get http://127.0.0.1:1/x --set bogus=1").status, 2);
  EXPECT_EQ(run("get http://127.0.0.1:1/x --set timeout=abc").status, 2);
  CliRun refused = run("get http://127.0.0.1:1/x --set timeout=0");
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.out.find("refused by the library"), std::string::npos);
}

TEST(QuarryCli, VerboseSendsLibraryLogToStandardError) {
  CliRun r = run("get http://127.0.0.1:1/x -v");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("DCMN<6+info  > Enter Func dl_open....\n"), std::string::npos) << r.out;
}

TEST(QuarryCli, UsageWithoutCommand) {
  EXPECT_EQ(run("").status, 2);
  EXPECT_EQ(run("version").out, "libquarry 5.4.0.32\n");
}

}  // namespace

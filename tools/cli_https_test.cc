// The quarry tool over HTTPS: its verifying defaults, --insecure, --cert,
// and what --help says about them.
#include <gtest/gtest.h>

#include <string>

#include "tests/peer/tls_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"
#include "tools/cli_test_support.h"

namespace {

using quarry_test::TlsPeer;
using quarry_test::TlsPeerConfig;
using quarry_cli_test::CliRun;
using quarry_cli_test::run;

std::string pki(const std::string &file) { return quarry_test::test_pki_dir() + "/" + file; }

TlsPeerConfig server() {
  TlsPeerConfig c;
  c.cert = pki("server.crt");
  c.key = pki("server.key");
  return c;
}

// One https exchange answered with |body|; returns the URL of /f.txt.
std::string serve(TlsPeer *peer, const std::string &body) {
  peer->add({quarry_test::read_until("\r\n\r\n"),
             quarry_test::send_bytes("HTTP/1.1 200 OK\r\nContent-Length: " +
                                     std::to_string(body.size()) + "\r\n\r\n" + body),
             quarry_test::close_conn()});
  peer->start();
  return "https://127.0.0.1:" + std::to_string(peer->port()) + "/f.txt";
}

TEST(QuarryCliHttps, HelpStatesTheTlsDefaultsAndOptions) {
  CliRun r = run("--help");
  EXPECT_EQ(r.status, 0);
  for (const char *text : {"ssl_method=3", "/etc/ssl/certs", "ssl_verify=1", "ssl_check_host=1",
                           "--insecure", "--cert FILE"}) {
    EXPECT_NE(r.out.find(text), std::string::npos) << text << "\n" << r.out;
  }
}

TEST(QuarryCliHttps, ServerOutsideTheSystemsTrustIsRefusedByDefault) {
  TlsPeer peer(server());
  std::string url = serve(&peer, "data");
  CliRun r = run("get " + url);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "quarry: failed: -23 Unknown Error\n");
}

TEST(QuarryCliHttps, InsecureSkipsTheChecks) {
  TlsPeerConfig config;
  config.cert = pki("selfsigned.crt");
  config.key = pki("selfsigned.key");
  TlsPeer peer(config);
  std::string url = serve(&peer, "data");
  CliRun r = run("get " + url + " --insecure");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "data");
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.connection(0).version, "TLSv1.3");
}

TEST(QuarryCliHttps, TrustFromAnotherDirectoryVerifies) {
  TlsPeer peer(server());
  std::string url = serve(&peer, "verified");
  CliRun r = run("get " + url + " --set ssl_ca_path=" + pki("cadir"));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "verified");
}

TEST(QuarryCliHttps, CertPresentsTheClientCertificate) {
  TlsPeerConfig config = server();
  config.client_ca = pki("ca.crt");
  config.require_client_cert = true;
  TlsPeer peer(config);
  std::string url = serve(&peer, "mine");
  quarry_test::TempDir dir;
  CliRun r = run("get " + url + " -o " + dir.file("f.txt") + " --cert " + pki("client.pem") +
                 " --set ssl_ca_path=" + pki("cadir"));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(quarry_test::read_file(dir.file("f.txt")), "mine");
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.connection(0).client_subject, "/CN=phone-client");
}

TEST(QuarryCliHttps, CertWithoutAFileIsAUsageError) {
  EXPECT_EQ(run("get https://127.0.0.1:1/x --cert").status, 2);
}

TEST(QuarryCliHttps, PutOverHttps) {
  TlsPeer peer(server());
  peer.add({quarry_test::read_until("payload"),
            quarry_test::send_bytes("HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n"),
            quarry_test::close_conn()});
  peer.start();
  quarry_test::TempDir dir;
  std::string file = dir.write("up.txt", "payload");
  CliRun r = run("put " + file + " https://localhost:" + std::to_string(peer.port()) +
                 "/up.txt --put --set ssl_ca_path=" + pki("cadir"));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(peer.wait());
  EXPECT_EQ(peer.connection(0).server_name, "localhost");
  EXPECT_EQ(peer.connection(0).received.rfind("PUT /up.txt HTTP/1.1\r\n", 0), 0u);
}

}  // namespace

// Opening TFTP transfers: argument checks, name resolution (getaddrinfo
// and the own resolver), the local socket and a server that never answers.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>

#include "tests/tftp/tftp_test_env.h"
#include "tftp/tftp.h"

namespace quarry_test {
namespace {

class TftpOpen : public TftpTest {
 protected:
  // Opens a download from a peer that answers with one short DATA block;
  // true when it opened and read that block.
  bool fetch_from(TftpPeer &peer, const char *host) {
    peer.run([](TftpPeer &p) {
      if (p.recv_one().empty()) return;
      p.send(data_pkt(1, "ok"));
      p.recv_one();
    });
    dl_tftp_conn *conn = nullptr;
    if (dl_tftp_open(&conn, host, peer.port(), "f", &err_) != 0) return false;
    char buf[8];
    int n = dl_tftp_read(conn, buf, sizeof(buf), &err_);
    dl_tftp_close(conn);
    return n == 2 && peer.wait();
  }
  void expect_param_refused() {
    EXPECT_EQ(err_.code, DL_ERR_PARAM);
    EXPECT_TRUE(logged(3, "tftp open with invalid parmeter\n"));
  }
};

TEST_F(TftpOpen, RefusesMissingArgumentsAndClearsTheHandle) {
  dl_tftp_conn *conn = reinterpret_cast<dl_tftp_conn *>(0x1);
  EXPECT_EQ(dl_tftp_open(&conn, nullptr, 69, "f", &err_), -1);
  EXPECT_EQ(conn, nullptr);
  expect_param_refused();
  conn = reinterpret_cast<dl_tftp_conn *>(0x1);
  EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", 69, nullptr, &err_), -1);
  EXPECT_EQ(conn, nullptr);
  EXPECT_EQ(dl_tftp_open(nullptr, "127.0.0.1", 69, "f", &err_), -1);
  EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", 65536, "f", &err_), -1);
  // Below zero is no port either.
  EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", -1, "f", &err_), -1);
  EXPECT_EQ(dl_tftp_send_open(&conn, "127.0.0.1", 65536, "f", &err_), -1);
  conn = reinterpret_cast<dl_tftp_conn *>(0x1);
  EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", 69, "f", nullptr), -1);
  EXPECT_EQ(conn, nullptr);
  EXPECT_EQ(count(3, "tftp open with invalid parmeter\n"), 7);
}

TEST_F(TftpOpen, NameOf255CharactersIsTheLongest) {
  dl_tftp_conn *conn = nullptr;
  EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", 69, std::string(256, 'n').c_str(), &err_), -1);
  expect_param_refused();
  EXPECT_FALSE(capture_->mentions("tftp open begin"));

  TftpPeer peer;
  std::string name(255, 'n');
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, ""));
  });
  ASSERT_EQ(dl_tftp_open(&conn, "127.0.0.1", peer.port(), name.c_str(), &err_), 0);
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received()[0], rrq(name));
  EXPECT_EQ(peer.received()[0].size(), 277u);
}

TEST_F(TftpOpen, ErrorReportIsClearedFirst) {
  TftpPeer peer;
  err_.code = 77;
  strcpy(err_.msg, "stale");
  EXPECT_TRUE(fetch_from(peer, "127.0.0.1"));
  EXPECT_EQ(err_.code, 0);
  EXPECT_STREQ(err_.msg, "");
}

TEST_F(TftpOpen, DownloadNeedsAnInitialisedLibrary) {
  dl_exit();
  dl_tftp_conn *conn = nullptr;
  EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", 69, "f", &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_NO_CONFIG);
  EXPECT_TRUE(logged(3, "config doesn't init\n"));
  dl_config_init();
}

TEST_F(TftpOpen, SilentServerIsNotATftpServerAfterThreeSeconds) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) { p.recv_one(); });
  dl_tftp_conn *conn = reinterpret_cast<dl_tftp_conn *>(0x1);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_tftp_open(&conn, "127.0.0.1", peer.port(), "f", &err_), -1);
  double waited = seconds_since(start);
  // The configured 1 s is raised to the 3 s floor.
  EXPECT_GT(waited, 2.9);
  EXPECT_LT(waited, 4.5);
  EXPECT_EQ(conn, nullptr);
  EXPECT_EQ(err_.code, DL_ERR_NOT_TFTP);
  EXPECT_STREQ(err_.msg, "Host is not a tftp server");
  EXPECT_TRUE(logged(6, "Send Request Packet\n"));
  EXPECT_FALSE(logged(5, "tftp open success\n"));
  ASSERT_TRUE(peer.wait());
}

TEST_F(TftpOpen, PortZeroMeans69) {
  // Nothing listens on 127.0.0.2 port 69 here; only the log line matters.
  dl_tftp_conn *conn = nullptr;
  uint32_t fast = 1;
  dl_set_option(DL_OPT_TIMEOUT, &fast);
  dl_tftp_send_open(&conn, "127.0.0.2", 0, "f", &err_);
  EXPECT_TRUE(logged(5, "tftp open begin, host: 127.0.0.2, port:69, remote_name:f\n"));
}

TEST_F(TftpOpen, UnknownHostIsAHostError) {
  dl_tftp_conn *conn = nullptr;
  EXPECT_EQ(dl_tftp_open(&conn, "no-such-host.invalid", 69, "f", &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_HOST);
  set_option(DL_OPT_USE_OWN_RESOLVER, 1);
  EXPECT_EQ(dl_tftp_open(&conn, "no-such-host.invalid", 69, "f", &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_HOST);
}

TEST_F(TftpOpen, Ipv6LiteralNeedsIpv6Enabled) {
  set_option(DL_OPT_IPV6_ENABLE, 0);
  dl_tftp_conn *conn = nullptr;
  EXPECT_EQ(dl_tftp_open(&conn, "::1", 69, "f", &err_), -1);
  EXPECT_EQ(err_.code, DL_ERR_HOST);
  set_option(DL_OPT_IPV6_ENABLE, 1);
  TftpPeer peer(true);
  EXPECT_TRUE(fetch_from(peer, "::1")) << err_.msg;
}

TEST_F(TftpOpen, OwnResolverAnswersLiterals) {
  set_option(DL_OPT_USE_OWN_RESOLVER, 1);
  TftpPeer peer4;
  EXPECT_TRUE(fetch_from(peer4, "127.0.0.1")) << err_.msg;
  set_option(DL_OPT_IPV6_ENABLE, 1);
  TftpPeer peer6(true);
  EXPECT_TRUE(fetch_from(peer6, "::1")) << err_.msg;
  // With IPv6 on, an IPv4 literal still goes out over IPv4.
  TftpPeer again4;
  EXPECT_TRUE(fetch_from(again4, "127.0.0.1")) << err_.msg;
}

TEST_F(TftpOpen, OwnResolverAnswersFromTheHostsFile) {
  TempDir dir;
  std::string hosts = dir.write("hosts", "127.0.0.1 tftp-peer.test\n::1 tftp6-peer.test\n");
  ASSERT_EQ(dl_set_option(DL_OPT_HOSTS_PATH, hosts.c_str()), 0);
  set_option(DL_OPT_USE_OWN_RESOLVER, 1);
  dl_dns_reload_hosts_conf();
  dns_answer answer;
  if (dl_dns_resolv("tftp-peer.test", 1, 1, &answer) != 0) {
    GTEST_SKIP() << "the own resolver does not read the hosts file in this build";
  }
  TftpPeer peer4;
  EXPECT_TRUE(fetch_from(peer4, "tftp-peer.test")) << err_.msg;
  set_option(DL_OPT_IPV6_ENABLE, 1);
  TftpPeer peer6(true);
  EXPECT_TRUE(fetch_from(peer6, "tftp6-peer.test")) << err_.msg;
}

TEST_F(TftpOpen, LocalPortIsAboveTheReservedRange) {
  TftpPeer peer;
  peer.run([](TftpPeer &p) {
    p.recv_one();
    p.send(data_pkt(1, ""));
  });
  dl_tftp_conn *conn = nullptr;
  ASSERT_EQ(dl_tftp_open(&conn, "127.0.0.1", peer.port(), "f", &err_), 0);
  sockaddr_in local = {};
  socklen_t len = sizeof(local);
  ASSERT_EQ(getsockname(conn->socket, reinterpret_cast<sockaddr *>(&local), &len), 0);
  EXPECT_GE(ntohs(local.sin_port), 1024);
  EXPECT_LE(ntohs(local.sin_port), 65534);
  EXPECT_EQ(local.sin_addr.s_addr, htonl(INADDR_ANY));
  dl_tftp_close(conn);
  ASSERT_TRUE(peer.wait());
}

}  // namespace
}  // namespace quarry_test

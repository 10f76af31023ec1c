// The scripted peers themselves: they play their script and record what a
// client sent.
#include "tests/peer/scripted_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using namespace quarry_test;

int connect_to(uint16_t port, bool ipv6 = false) {
  int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
  int rc;
  if (ipv6) {
    sockaddr_in6 a = {};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    a.sin6_port = htons(port);
    rc = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
  } else {
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    rc = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
  }
  EXPECT_EQ(rc, 0);
  return fd;
}

std::string read_all(int fd) {
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = recv(fd, buf, sizeof(buf), 0)) > 0) out.append(buf, static_cast<size_t>(n));
  return out;
}

TEST(TcpPeer, PlaysScriptAndRecordsRequest) {
  TcpPeer peer;
  peer.add({read_until("\r\n\r\n"), send_bytes("HTTP/1.1 200 OK\r\n\r\nhi"), close_conn()});
  peer.start();
  int fd = connect_to(peer.port());
  std::string request = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
  ASSERT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
  EXPECT_EQ(read_all(fd), "HTTP/1.1 200 OK\r\n\r\nhi");
  close(fd);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received(0), request);
}

TEST(TcpPeer, EachConnectionPlaysTheNextScriptOverIpv6) {
  TcpPeer peer(true);
  peer.add({read_bytes(3), send_bytes("one")});
  peer.add({read_bytes(3), send_bytes("two")});
  peer.start();
  for (const char *expected : {"one", "two"}) {
    int fd = connect_to(peer.port(), true);
    send(fd, "abc", 3, 0);
    EXPECT_EQ(read_all(fd), expected);
    close(fd);
  }
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(peer.received(1), "abc");
}

TEST(TcpPeer, ReadToEndCollectsUntilClientCloses) {
  TcpPeer peer;
  peer.add({read_to_end()});
  peer.start();
  int fd = connect_to(peer.port());
  send(fd, "part1", 5, 0);
  send(fd, "part2", 5, 0);
  shutdown(fd, SHUT_WR);
  ASSERT_TRUE(peer.wait());
  close(fd);
  EXPECT_EQ(peer.received(0), "part1part2");
}

TEST(TcpPeer, ResetEndsTheConnectionAbruptly) {
  TcpPeer peer;
  peer.add({read_bytes(1), send_bytes("x"), sleep_ms(50), reset_conn()});
  peer.start();
  int fd = connect_to(peer.port());
  send(fd, "a", 1, 0);
  char buf[8];
  EXPECT_EQ(recv(fd, buf, 1, 0), 1);
  ASSERT_TRUE(peer.wait());
  EXPECT_EQ(recv(fd, buf, sizeof(buf), 0), -1);
  EXPECT_EQ(errno, ECONNRESET);
  close(fd);
}

TEST(UdpPeer, AnswersFromAFreshPortAfterSwitch) {
  UdpPeer peer;
  peer.set_script({read_bytes(0), switch_port(), send_bytes("reply")});
  peer.start();
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(peer.port());
  sendto(fd, "req", 3, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
  char buf[16];
  sockaddr_in from = {};
  socklen_t from_len = sizeof(from);
  ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &from_len);
  ASSERT_EQ(n, 5);
  EXPECT_EQ(std::string(buf, 5), "reply");
  EXPECT_NE(ntohs(from.sin_port), peer.port());
  ASSERT_TRUE(peer.wait());
  ASSERT_EQ(peer.datagrams().size(), 1u);
  EXPECT_EQ(peer.datagrams()[0], "req");
  close(fd);
}

// A datagram socket on ::1 that sends |data| to |port|; returns it.
int send_from_v6(uint16_t port, const std::string &data) {
  int fd = socket(AF_INET6, SOCK_DGRAM, 0);
  sockaddr_in6 to = {};
  to.sin6_family = AF_INET6;
  to.sin6_addr = in6addr_loopback;
  to.sin6_port = htons(port);
  sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
  return fd;
}

uint16_t local_port(int fd) {
  sockaddr_in6 me = {};
  socklen_t len = sizeof(me);
  getsockname(fd, reinterpret_cast<sockaddr *>(&me), &len);
  return ntohs(me.sin6_port);
}

TEST(UdpPeer, FunctionAnswersEachSenderAndRecordsItsPort) {
  UdpPeer peer(true);
  peer.run([](UdpPeer &p) {
    std::string got;
    while (p.recv(&got, 2000)) p.send("re:" + got);
  });
  int a = send_from_v6(peer.port(), "one");
  int b = send_from_v6(peer.port(), "two");
  char buf[16];
  ASSERT_EQ(recv(a, buf, sizeof(buf), 0), 6);
  EXPECT_EQ(std::string(buf, 6), "re:one");
  ASSERT_EQ(recv(b, buf, sizeof(buf), 0), 6);
  EXPECT_EQ(std::string(buf, 6), "re:two");
  EXPECT_EQ(peer.received(), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(peer.sender_ports(), (std::vector<uint16_t>{local_port(a), local_port(b)}));
  EXPECT_EQ(peer.sender_port(), local_port(b));
  close(a);
  close(b);
}

TEST(UdpPeer, DestructionEndsAFunctionServingForever) {
  auto start = std::chrono::steady_clock::now();
  {
    UdpPeer peer;
    peer.run([](UdpPeer &p) {
      std::string got;
      while (!p.stopping()) p.recv(&got);
    });
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

}  // namespace

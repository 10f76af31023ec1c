#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <string>

#include "quarry_internal.h"

namespace {

struct Parsed {
  int rc;
  int len;
  sockaddr_storage ss;
};

Parsed parse(const char *text, int room = sizeof(sockaddr_storage)) {
  Parsed p;
  memset(&p.ss, 0xAB, sizeof(p.ss));
  p.len = room;
  p.rc = evutil_parse_sockaddr_port(text, reinterpret_cast<sockaddr *>(&p.ss), &p.len);
  return p;
}

std::string text_of(const sockaddr_storage &ss) {
  char buf[INET6_ADDRSTRLEN] = "";
  if (ss.ss_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(&ss)->sin_addr, buf, sizeof(buf));
  } else {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(&ss)->sin6_addr, buf, sizeof(buf));
  }
  return buf;
}

int port_of(const sockaddr_storage &ss) {
  return ntohs(reinterpret_cast<const sockaddr_in *>(&ss)->sin_port);
}

TEST(ParseSockaddrPort, Ipv4Alone) {
  Parsed p = parse("192.0.2.1");
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(p.len, 16);
  EXPECT_EQ(p.ss.ss_family, AF_INET);
  EXPECT_EQ(text_of(p.ss), "192.0.2.1");
  EXPECT_EQ(port_of(p.ss), 0);
}

TEST(ParseSockaddrPort, Ipv4WithPort) {
  Parsed p = parse("192.0.2.1:5353");
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(p.len, 16);
  EXPECT_EQ(port_of(p.ss), 5353);
}

TEST(ParseSockaddrPort, BracketedIpv6WithPort) {
  Parsed p = parse("[2001:db8::1]:5353");
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(p.len, 28);
  EXPECT_EQ(p.ss.ss_family, AF_INET6);
  EXPECT_EQ(text_of(p.ss), "2001:db8::1");
  EXPECT_EQ(port_of(p.ss), 5353);
}

TEST(ParseSockaddrPort, BracketedIpv6WithoutPort) {
  Parsed p = parse("[::1]");
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(text_of(p.ss), "::1");
  EXPECT_EQ(port_of(p.ss), 0);
}

TEST(ParseSockaddrPort, BareIpv6HasNoPort) {
  Parsed p = parse("2001:db8::53");
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(p.len, 28);
  EXPECT_EQ(text_of(p.ss), "2001:db8::53");
  EXPECT_EQ(port_of(p.ss), 0);
}

TEST(ParseSockaddrPort, OutputIsClearedToTheCallersRoom) {
  Parsed p = parse("192.0.2.1", 20);
  ASSERT_EQ(p.rc, 0);
  const auto *bytes = reinterpret_cast<const unsigned char *>(&p.ss);
  for (int i = 8; i < 20; ++i) EXPECT_EQ(bytes[i], 0) << i;
  EXPECT_EQ(bytes[20], 0xAB);
}

TEST(ParseSockaddrPort, PortsOutsideTheRangeAreRefused) {
  EXPECT_EQ(parse("192.0.2.1:0").rc, -1);
  EXPECT_EQ(parse("192.0.2.1:65536").rc, -1);
  EXPECT_EQ(parse("[::1]:0").rc, -1);
  EXPECT_EQ(parse("192.0.2.1:").rc, -1);
  EXPECT_EQ(parse("192.0.2.1:53x").rc, -1);
  EXPECT_EQ(parse("192.0.2.1:65535").rc, 0);
  EXPECT_EQ(parse("192.0.2.1:1").rc, 0);
}

TEST(ParseSockaddrPort, RoomTooSmallIsRefused) {
  EXPECT_EQ(parse("192.0.2.1", 15).rc, -1);
  EXPECT_EQ(parse("::1", 27).rc, -1);
  EXPECT_EQ(parse("::1", 28).rc, 0);
}

TEST(ParseSockaddrPort, MalformedTextIsRefused) {
  EXPECT_EQ(parse("").rc, -1);
  EXPECT_EQ(parse("example.test").rc, -1);
  EXPECT_EQ(parse("[::1").rc, -1);
  EXPECT_EQ(parse("[::1]x").rc, -1);
  EXPECT_EQ(parse("[192.0.2.1]").rc, -1);
  EXPECT_EQ(parse("1.2.3.4.5").rc, -1);
  EXPECT_EQ(parse("fe80::1%lo").rc, -1);
  EXPECT_EQ(evutil_parse_sockaddr_port(nullptr, nullptr, nullptr), -1);
}

TEST(ParseSockaddrPort, OverlongAddressTextIsRefused) {
  std::string inner(128, '0');
  EXPECT_EQ(parse(("[" + inner + "]").c_str()).rc, -1);
  EXPECT_EQ(parse((std::string(128, '1') + ":53").c_str()).rc, -1);
}

sockaddr_storage addr(const char *text) { return parse(text).ss; }

int cmp(const char *a, const char *b, int include_port) {
  sockaddr_storage sa = addr(a);
  sockaddr_storage sb = addr(b);
  return evutil_sockaddr_cmp(reinterpret_cast<sockaddr *>(&sa), reinterpret_cast<sockaddr *>(&sb),
                             include_port);
}

TEST(SockaddrCmp, FamiliesOrderByFamilyValue) {
  EXPECT_LT(cmp("10.0.0.1", "::1", 0), 0);
  EXPECT_GT(cmp("::1", "10.0.0.1", 0), 0);
}

TEST(SockaddrCmp, Ipv4OrdersByTheStoredValue) {
  in_addr a;
  in_addr b;
  inet_pton(AF_INET, "1.0.0.2", &a);
  inet_pton(AF_INET, "2.0.0.1", &b);
  int want = a.s_addr < b.s_addr ? -1 : 1;
  EXPECT_EQ(cmp("1.0.0.2", "2.0.0.1", 0) < 0, want < 0);
  EXPECT_EQ(cmp("10.0.0.1", "10.0.0.1", 0), 0);
}

TEST(SockaddrCmp, Ipv6OrdersByItsBytes) {
  EXPECT_LT(cmp("2001:db8::1", "2001:db8::2", 0), 0);
  EXPECT_GT(cmp("2001:db9::", "2001:db8::ffff", 0), 0);
  EXPECT_EQ(cmp("::1", "[::1]", 0), 0);
}

TEST(SockaddrCmp, PortsCountOnlyWhenAsked) {
  EXPECT_EQ(cmp("10.0.0.1:53", "10.0.0.1:54", 0), 0);
  EXPECT_NE(cmp("10.0.0.1:53", "10.0.0.1:54", 1), 0);
  EXPECT_EQ(cmp("[::1]:53", "[::1]:53", 1), 0);
  EXPECT_NE(cmp("[::1]:53", "[::1]:5353", 1), 0);
}

TEST(SockaddrCmp, OtherFamiliesCompareAsOne) {
  sockaddr_storage a = {};
  sockaddr_storage b = {};
  a.ss_family = AF_UNIX;
  b.ss_family = AF_UNIX;
  EXPECT_EQ(evutil_sockaddr_cmp(reinterpret_cast<sockaddr *>(&a), reinterpret_cast<sockaddr *>(&b), 0), 1);
}

}  // namespace

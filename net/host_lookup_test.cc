#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "net/net_test_support.h"
#include "tests/support/child_process.h"

namespace quarry_test {
namespace {

struct FreeList {
  void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using List = std::unique_ptr<addrinfo, FreeList>;

// The families of |list| in order, as "2,10".
std::string families(const addrinfo *list) {
  std::string out;
  for (; list != nullptr; list = list->ai_next) {
    if (!out.empty()) out += ",";
    out += std::to_string(list->ai_family);
  }
  return out;
}

using LookUpHost = NetTest;

TEST_F(LookUpHost, Ipv4AddressForStreams) {
  List list(dl_look_up_host("127.0.0.1", 0, SOCK_STREAM));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->ai_next, nullptr);
  EXPECT_EQ(list->ai_family, AF_INET);
  EXPECT_EQ(list->ai_socktype, SOCK_STREAM);
  const auto *sin = reinterpret_cast<const sockaddr_in *>(list->ai_addr);
  EXPECT_EQ(sin->sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  // No service was asked for: the port is left to the caller.
  EXPECT_EQ(sin->sin_port, 0);
}

TEST_F(LookUpHost, SocketTypeIsPassedOn) {
  List list(dl_look_up_host("127.0.0.1", 0, SOCK_DGRAM));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->ai_socktype, SOCK_DGRAM);
}

TEST_F(LookUpHost, Ipv6LiteralWhenAllowed) {
  List list(dl_look_up_host("::1", 1, SOCK_STREAM));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->ai_family, AF_INET6);
}

TEST_F(LookUpHost, Ipv4LiteralWhenIpv6IsAllowed) {
  List list(dl_look_up_host("127.0.0.1", 1, SOCK_STREAM));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->ai_family, AF_INET);
}

TEST_F(LookUpHost, Ipv6LiteralWhenNotAllowedLogsTheFailure) {
  EXPECT_EQ(dl_look_up_host("::1", 0, SOCK_STREAM), nullptr);
  EXPECT_TRUE(log().has(kDcmn, kError, gai_line(EAI_ADDRFAMILY)));
}

TEST_F(LookUpHost, UnknownSocketTypeLogsTheFailure) {
  EXPECT_EQ(dl_look_up_host("127.0.0.1", 0, 12345), nullptr);
  EXPECT_TRUE(log().has(kDcmn, kError, gai_line(EAI_SOCKTYPE)));
}

TEST_F(LookUpHost, NullHostLogsTheFailure) {
  EXPECT_EQ(dl_look_up_host(nullptr, 0, SOCK_STREAM), nullptr);
  EXPECT_TRUE(log().has(kDcmn, kError, gai_line(EAI_NONAME)));
}

TEST_F(LookUpHost, EmptyHostLogsTheFailure) {
  EXPECT_EQ(dl_look_up_host("", 1, SOCK_STREAM), nullptr);
  EXPECT_TRUE(log().has(kDcmn, kError, gai_line(EAI_NONAME)));
}

// A name with both loopback addresses, from a child's private hosts file.
TEST_F(LookUpHost, DualStackNameGivesIpv4OnlyUnlessIpv6IsAllowed) {
  if (geteuid() != 0) GTEST_SKIP() << "a private /etc/hosts needs root";
  std::string out = run_in_child([]() -> std::string {
    if (!use_private_hosts("2001:db8::1 dual.quarry.test\n192.0.2.1 dual.quarry.test\n")) {
      return "no private hosts";
    }
    List v4(dl_look_up_host("dual.quarry.test", 0, SOCK_STREAM));
    List any(dl_look_up_host("dual.quarry.test", 1, SOCK_STREAM));
    std::string all = families(any.get());
    bool both = all == "2,10" || all == "10,2";
    return families(v4.get()) + (both ? " then both" : " then " + all);
  });
  if (out == "no private hosts") GTEST_SKIP() << out;
  EXPECT_EQ(out, "2 then both");
}

}  // namespace
}  // namespace quarry_test

#include "base/socket_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace gxbase {
namespace {

TEST(SocketAddressTest, ParsesAndPrints) {
  const struct {
    std::string host;
    int port;
    int family;
    std::string text;
  } cases[] = {
      {"127.0.0.1", 22, AF_INET, "127.0.0.1:22"},
      {"0.0.0.0", 0, AF_INET, "0.0.0.0:0"},
      {"255.255.255.255", 65535, AF_INET, "255.255.255.255:65535"},
      {"::", 5000, AF_INET6, "[::]:5000"},
      {"2001:DB8:0:0:0:0:0:1", 1, AF_INET6, "[2001:db8::1]:1"},
      {"::ffff:1.2.3.4", 1, AF_INET6, "[::ffff:1.2.3.4]:1"},
      {"localhost", 22, AF_UNSPEC, "localhost:22"},
      {"1.2.3", 22, AF_UNSPEC, "1.2.3:22"},
      {"1.2.3.4.5", 22, AF_UNSPEC, "1.2.3.4.5:22"},
      {"256.1.1.1", 22, AF_UNSPEC, "256.1.1.1:22"},
      {" 127.0.0.1", 22, AF_UNSPEC, " 127.0.0.1:22"},
      {"[::1]", 22, AF_UNSPEC, "[::1]:22"},
      {"", 22, AF_UNSPEC, ":22"},
  };
  for (const auto& c : cases) {
    const SocketAddress address(c.host, c.port);
    EXPECT_EQ(address.ipaddr().family(), c.family) << c.host;
    EXPECT_EQ(address.ToString(), c.text);
    EXPECT_EQ(address.port(), c.port);
  }
}

TEST(SocketAddressTest, TextThatIsNoAddressLeavesTheUnspecifiedOne) {
  IPAddress ip;
  ASSERT_TRUE(IPFromString("10.0.0.1", &ip));
  EXPECT_EQ(ip.ipv4_address().s_addr, htonl(0x0A000001));
  EXPECT_FALSE(IPFromString("1.2.3", &ip));
  EXPECT_EQ(ip.family(), AF_UNSPEC);
  EXPECT_EQ(ip.ToString(), "");
  EXPECT_EQ(ip.ipv4_address().s_addr, 0u);
  EXPECT_FALSE(IPFromString(std::string("127.0.0.1\0.evil", 15), &ip)) << "a NUL hides the rest";
  EXPECT_FALSE(IPFromString("127.0.0.1", nullptr));
}

TEST(SocketAddressTest, ToSockAddrKnowsIpv4Only) {
  sockaddr_in out;
  SocketAddress("127.0.0.1", 0x1234).ToSockAddr(&out);
  EXPECT_EQ(out.sin_family, AF_INET);
  EXPECT_EQ(out.sin_port, htons(0x1234));
  EXPECT_EQ(out.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  for (const char* host : {"::1", "localhost"}) {
    std::memset(&out, 0xEE, sizeof out);
    SocketAddress(host, 22).ToSockAddr(&out);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&out);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof out, [](unsigned char byte) { return byte == 0; })) << host;
  }
}

TEST(SocketAddressTest, ComesFromTheSystemsAddresses) {
  sockaddr_storage storage{};
  auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&storage);
  ipv6->sin6_family = AF_INET6;
  ipv6->sin6_port = htons(5000);
  ipv6->sin6_addr = in6addr_loopback;
  SocketAddress address("name", 1);
  ASSERT_TRUE(SocketAddressFromSockAddrStorage(storage, &address));
  EXPECT_EQ(address.ToString(), "[::1]:5000");

  storage = {};
  SocketAddress("10.1.2.3", 80).ToSockAddr(reinterpret_cast<sockaddr_in*>(&storage));
  ASSERT_TRUE(SocketAddressFromSockAddrStorage(storage, &address));
  EXPECT_EQ(address.ToString(), "10.1.2.3:80");

  storage.ss_family = AF_UNIX;
  EXPECT_FALSE(SocketAddressFromSockAddrStorage(storage, &address));
  EXPECT_EQ(address.ToString(), "10.1.2.3:80") << "unchanged";
  EXPECT_FALSE(SocketAddressFromSockAddrStorage(storage, nullptr));
}

}  // namespace
}  // namespace gxbase

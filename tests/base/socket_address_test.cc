#include "base/socket_address.h"

#include <arpa/inet.h>

#include "support/test.h"

namespace gxbase {
namespace {

TEST(SocketAddressTest, GoesToTheSystemsAddressesAndBack) {
  sockaddr_storage storage{};
  auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&storage);
  ipv6->sin6_family = AF_INET6;
  ipv6->sin6_port = htons(5000);
  ipv6->sin6_addr = in6addr_loopback;
  SocketAddress address("name", 1);
  ASSERT_TRUE(SocketAddressFromSockAddrStorage(storage, &address));
  EXPECT_EQ(address.ToString(), "[::1]:5000");

  auto* ipv4 = reinterpret_cast<sockaddr_in*>(&storage);
  address.ToSockAddr(ipv4);
  EXPECT_EQ(ipv4->sin_family, AF_UNSPEC) << "it knows IPv4 only";
  EXPECT_EQ(ipv4->sin_port, 0);
  SocketAddress("10.1.2.3", 80).ToSockAddr(ipv4);
  ASSERT_TRUE(SocketAddressFromSockAddrStorage(storage, &address));
  EXPECT_EQ(address.ToString(), "10.1.2.3:80");

  storage.ss_family = AF_UNIX;
  EXPECT_FALSE(SocketAddressFromSockAddrStorage(storage, &address));
  EXPECT_EQ(address.ToString(), "10.1.2.3:80") << "unchanged";
  EXPECT_EQ(SocketAddress("1.2.3", 22).ToString(), "1.2.3:22") << "a name";
  IPAddress ip;
  EXPECT_FALSE(IPFromString(std::string("127.0.0.1\0.evil", 15), &ip)) << "a NUL hides the rest";
  EXPECT_TRUE(IPFromString("0.0.0.0", &ip) && IPIsAny(ip));
  EXPECT_TRUE(IPFromString("10.1.2.3", &ip) && !IPIsAny(ip));
}

}  // namespace
}  // namespace gxbase

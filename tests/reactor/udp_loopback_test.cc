#include "reactor/udp_loopback.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "reactor_support.h"

namespace {

TEST(UdpLoopbackTest, CarriesDatagramsToItselfWhileOpen) {
  CUdpLoopback loopback;
  const std::int32_t sent = 3;
  std::int32_t got = 0;
  EXPECT_EQ(loopback.Write(&sent, sizeof sent), 0);
  ASSERT_TRUE(loopback.CreateIfNot());
  const int handle = loopback.GetHandle();
  EXPECT_NE(fcntl(handle, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(loopback.Read(&got, sizeof got), -1) << "nothing there, and no wait for it";

  EXPECT_EQ(loopback.Write(&sent, sizeof sent), 4);
  EXPECT_TRUE(loopback.CreateIfNot());
  EXPECT_EQ(loopback.Read(&got, sizeof got), 4) << "the open socket was kept";
  EXPECT_EQ(got, sent);

  EXPECT_EQ(loopback.Write(&sent, sizeof sent), 4);
  EXPECT_TRUE(loopback.Create());
  EXPECT_EQ(loopback.Read(&got, sizeof got), -1) << "a new socket starts empty";

  loopback.Destroy();
  EXPECT_EQ(loopback.GetHandle(), -1);
  EXPECT_EQ(loopback.Read(&got, sizeof got), 0);
  EXPECT_EQ(fcntl(handle, F_GETFD), -1);
}

}  // namespace

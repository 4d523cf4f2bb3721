// What a process can do to the reactor: forged wake-ups, and more files than select can watch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "support/descriptor_limit.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/scale.h"

namespace {

using gxtest::DescriptorLimit;
using gxtest::FarSide;
using gxtest::Scale;
using gxtest::TakenDescriptors;
using gxtest::TcpClient;

class ReactorFaults : public gxtest::ForwardingTest {};

// The address of the wake-up socket, which is the only datagram socket around.
sockaddr_in FindWakeUpSocket() {
  sockaddr_in address{};
  for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
    int type = 0;
    socklen_t length = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_DGRAM) continue;
    length = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    if (address.sin_family == AF_INET) return address;
  }
  ADD_FAILURE() << "no wake-up socket";
  return address;
}

TEST_F(ReactorFaults, ForgedWakeUpsStopNothing) {
  const FarSide far(stream_);
  TcpClient client(address_);
  ASSERT_TRUE(client.Echoes());
  const sockaddr_in target = FindWakeUpSocket();
  const int stranger = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::minstd_rand random(1);
  for (int i = Scale(1'000, 10'000); i > 0; --i) {
    const std::int32_t event = i % 4;  // a stop among them
    const std::size_t length = i % 3 == 0 ? random() % 4 : sizeof event;
    sendto(stranger, &event, length, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
    EXPECT_TRUE(i % 100 != 0 || client.Echoes());
  }
  close(stranger);
  EXPECT_TRUE(client.Echoes());
  TcpClient next(address_);
  EXPECT_TRUE(next.Echoes());
}

// A host with 1,100 open files: what select cannot watch is refused with a line, what it can is served.
TEST_F(ReactorFaults, AHostOfManyFilesIsRefusedWithALine) {
  const DescriptorLimit plenty(1'300);
  const FarSide far(stream_);
  TcpClient before(address_);
  ASSERT_TRUE(before.Echoes());
  {
    const TakenDescriptors files(1'100);
    for (int i = 0; i < 20; ++i) {
      TcpClient refused(address_);
      EXPECT_TRUE(refused.WaitForEnd());
    }
    EXPECT_TRUE(before.Echoes());
    const auto lines = log_.Lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) {
                              return line.first == kGXModLogError &&
                                     line.second.find("connection refused") != std::string::npos;
                            }),
              20);
    IChannelRaw* deaf = client_->NewChannel("late", "", "10.0.0.1:22");
    ASSERT_NE(deaf, nullptr);
    EXPECT_STREQ(deaf->get_LocalAddress(), "") << "no port that nobody answers on";
    EXPECT_THAT(log_.Lines(),
                testing::Contains(testing::Pair(kGXModLogError, testing::HasSubstr("listening"))));
  }
  EXPECT_TRUE(before.Echoes());
  TcpClient after(address_);
  EXPECT_TRUE(after.Echoes());
}

}  // namespace

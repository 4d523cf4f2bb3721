// What a process can do to the reactor: forged wake-ups, descriptors that run out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <random>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/echo_client.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/scale.h"

namespace {

using namespace std::chrono_literals;
using gxtest::DescriptorLimit;
using gxtest::EchoClient;
using gxtest::Eventually;
using gxtest::FarSide;
using gxtest::Scale;
using gxtest::TakenDescriptors;
using Clock = std::chrono::steady_clock;

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
  EchoClient client(address_);
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
  EchoClient next(address_);
  EXPECT_TRUE(next.Echoes());
}

// 64 descriptors in all: whoever is connected stays so and is served, and accepting goes on once there are some
// again.
TEST_F(ReactorFaults, OutOfDescriptorsTheOthersAreServed) {
  constexpr int kDescriptors = 64;
  const FarSide far(stream_);
  std::vector<EchoClient> clients;
  // The first answer may come while the reactor still looks for a further client, which takes a descriptor for
  // a moment; the second one goes through the reactor.
  const auto one_more_echoes = [&] {
    clients.emplace_back(address_);
    return clients.back().Echoes() && clients.back().Echoes();
  };
  ASSERT_TRUE(one_more_echoes());
  // One connection ends while there are descriptors: a sanitizer needs some to look a type up for the first
  // time.
  ASSERT_TRUE(EchoClient(address_).Echoes());
  ASSERT_TRUE(far.WaitForCloses(1));
  {
    const DescriptorLimit few(kDescriptors);
    // A connection takes two. Of the last one the client finds a descriptor, and the module finds none.
    std::size_t left = TakenDescriptors(kDescriptors).Count();
    const TakenDescriptors odd(left % 2 == 0 ? gxtest::LowestFreeDescriptor() + 1 : 0);
    for (; left > 2; left -= 2) ASSERT_TRUE(one_more_echoes());
    EchoClient waiting(address_);
    ASSERT_TRUE(waiting.IsConnected());
    ASSERT_EQ(gxtest::LowestFreeDescriptor(), -1);
    const auto start = Clock::now();
    for (EchoClient& client : clients) EXPECT_TRUE(client.Echoes());
    EXPECT_LT(Clock::now() - start, 4s) << "the pause is for those who wait for a descriptor";
    for (int i = 0; i < 3; ++i) clients.pop_back();
    const auto freed = Clock::now();
    EXPECT_TRUE(waiting.Echoes());
    const auto waited_ms = (Clock::now() - freed) / 1ms;
    EXPECT_LE(waited_ms, 6000);
    for (EchoClient& client : clients) EXPECT_TRUE(client.Echoes());
    std::cout << clients.size() << " stayed, accepting went on after " << waited_ms << " ms\n";
  }
  EXPECT_EQ(far.Total().fault, "");
}

// A host with 1,100 open files: what select cannot watch is refused with a line, what it can is served.
TEST_F(ReactorFaults, AHostOfManyFilesIsRefusedWithALine) {
  const DescriptorLimit plenty(1'300);
  const FarSide far(stream_);
  EchoClient before(address_);
  ASSERT_TRUE(before.Echoes());
  {
    const TakenDescriptors files(1'100);
    for (int i = 0; i < 20; ++i) {
      EchoClient refused(address_);
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
  EchoClient after(address_);
  EXPECT_TRUE(after.Echoes());
}

}  // namespace

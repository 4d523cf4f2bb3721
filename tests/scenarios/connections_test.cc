// Many local connections, and every way to end one.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/heap.h"
#include "support/scale.h"

namespace {

using gxtest::ConnectionType;
using gxtest::Eventually;
using gxtest::FarSide;
using gxtest::Pattern;
using gxtest::Rounds;
using gxtest::Scale;
using gxtest::TcpClient;

constexpr std::size_t kMebibyte = 1024 * 1024;

class ConnectionsTest : public gxtest::ForwardingTest {
 protected:
  void SetUp() override {
    ForwardingTest::SetUp();
    TcpClient(address_).Close();  // what is made once and kept is made now
    ASSERT_TRUE(stream_->Receive(ConnectionType::Close));
  }

  // `clients` at once send `bytes` each and get them back; one Connect and one Close for each.
  void EchoForAll(std::size_t clients, std::size_t bytes, FarSide::Answer answer = FarSide::Echo) {
    constexpr std::size_t kThreads = 16;
    constexpr std::size_t kFirst = 8;  // each is answered before its thread brings the next one
    const gxtest::DescriptorLimit plenty(static_cast<int>(FD_SETSIZE + 2 * clients + 100));
    const FarSide far(stream_, std::move(answer));
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([=, this] {
        std::vector<TcpClient> group;
        for (std::size_t client = i; client < clients; client += kThreads) {
          group.emplace_back(address_).LeaveSelect();
          EXPECT_TRUE(group.back().Echoes(kFirst));
        }
        for (TcpClient& client : group) EXPECT_TRUE(client.Echoes(bytes - kFirst));
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(far.WaitForCloses(clients));
    const FarSide::Totals total = far.Total();
    EXPECT_EQ(total.fault, "");
    EXPECT_EQ(total.connects, clients);
    EXPECT_EQ(total.closes, clients);
    EXPECT_EQ(total.bytes, clients * bytes);
  }
};

// The host's threads cause frames, too, and the host takes what it likes of a block.
TEST_F(ConnectionsTest, NineHundredAtOnce) {
  stream_->Behave({.write_at_most = 1000, .cut_seed = 1, .zero_every = 7});
  std::thread tester([&] {
    for (int i = 0; i < 1000; ++i) client_->TestChannel("", "", "does it work?");
  });
  EchoForAll(900, Scale(1000U, 20'000U));
  tester.join();
}

// Both roads of the carrier are always full, so each side has to go on while the other waits. Nor may the
// reader stand still to report an end.
TEST_F(ConnectionsTest, NarrowCarrierNeverStandsStill) {
  stream_->Behave({.capacity = 4096, .send_capacity = 4096});
  const std::size_t bytes = Scale(kMebibyte / 16, 4 * kMebibyte);
  EchoForAll(64, bytes, FarSide::EchoAndEnd(bytes));
}

// What the host's Write does not take at once is the time of a slow line: nobody's 64 KiB go ahead of the
// others.
TEST_F(ConnectionsTest, TakeTurnsOnASlowLine) {
  constexpr std::size_t kBytes = 64 * 1024;
  Connection first = Connect();
  Connection second = Connect();
  stream_->Behave({.capacity = 1});
  for (Connection* connection : {&first, &second}) connection->local.Send(Pattern(kBytes));
  ASSERT_TRUE(stream_->WaitUntilWriteBlocks());
  stream_->Behave({.write_at_most = 1000});
  std::size_t in_a_row = 0;
  std::uint32_t last = 0;
  for (std::size_t received = 0; received < kBytes;) {
    const auto frame = stream_->Receive(ConnectionType::Data);
    ASSERT_TRUE(frame);
    received += frame->payload.size();
    in_a_row = frame->id == last ? in_a_row + 1 : 1;
    last = frame->id;
    EXPECT_LE(in_a_row, 2U) << received;
  }
}

TEST_F(ConnectionsTest, ComingAndGoingLeavesNothing) {
  const auto round_trip = [&] {
    Connection connection = Connect();
    const std::string bytes = Pattern(1000);
    ASSERT_TRUE(connection.local.Send(bytes));
    ASSERT_EQ(ReceiveData(connection.id, bytes.size()), bytes);
    stream_->Send({ConnectionType::Data, connection.id, bytes});
    ASSERT_EQ(connection.local.Receive(bytes.size()), bytes);
    connection.local.Close();
    ASSERT_TRUE(stream_->Receive(ConnectionType::Close));
    log_.Lines();
  };
  round_trip();
  ASSERT_TRUE(stream_->WaitUntilRead());
  const int descriptors = gxtest::OpenDescriptors();
  const std::int64_t objects = gxtest::LiveObjects();
  const std::size_t heap = gxtest::HeapBytes();
  for (int left = Rounds(300, 20'000); left > 0 && !HasFatalFailure(); --left) round_trip();
  EXPECT_TRUE(Eventually([&] { return gxtest::LiveObjects() <= objects; })) << gxtest::LiveObjects() - objects;
  EXPECT_LE(gxtest::OpenDescriptors(), descriptors);
  constexpr std::size_t kCached = 64 * 1024;  // freed blocks that malloc keeps for the thread count as used
  EXPECT_LE(gxtest::HeapBytes(), heap + kCached);
}

// Most connections are idle most of the time, also those that have said something before.
TEST_F(ConnectionsTest, IdleOnesTakeLittleMemory) {
  if (gxtest::kSanitized) GTEST_SKIP() << "a sanitizer has malloc";
  constexpr std::size_t kConnections = 300;
  constexpr std::size_t kBytesEach = 2048;
  std::vector<Connection> connections;
  connections.reserve(kConnections);
  const std::size_t heap = gxtest::HeapBytes();
  while (connections.size() < kConnections && !HasFailure()) {
    connections.push_back(Connect());
    ASSERT_TRUE(connections.back().local.Send("hello"));
    ASSERT_EQ(ReceiveData(connections.back().id, 5), "hello");
  }
  EXPECT_LE(gxtest::HeapBytes(), heap + kConnections * kBytesEach);
}

// The client ends in some way behind an upload; all of it arrives, and one Close.
TEST_F(ConnectionsTest, EndsByTheClient) {
  const std::size_t rounds = static_cast<std::size_t>(Rounds(100, 1000));
  std::size_t total = 0;
  const FarSide far(stream_, FarSide::Sink);
  for (std::size_t round = 0; round < rounds && !HasFailure(); ++round) {
    TcpClient local(address_);
    const std::size_t length = round % 3 == 0 ? 0U : 50'000U;
    total += length;
    ASSERT_TRUE(local.Send(Pattern(length, static_cast<std::uint32_t>(round + 1))));
    if (round % 4 == 0) {  // a reset may overtake what was sent, so that is waited for
      EXPECT_TRUE(Eventually([&] { return far.Total().bytes == total; })) << far.Total().bytes;
      local.Reset();
    } else if (round % 4 == 1) {
      local.FinishSending();
      EXPECT_EQ(local.ReceiveToEnd(), "");
    }
    local.Close();
    EXPECT_TRUE(far.WaitForCloses(round + 1));
    EXPECT_EQ(far.Total().bytes, total) << round;
    EXPECT_EQ(far.Total().fault, "");
  }
}

}  // namespace

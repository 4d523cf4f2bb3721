// Many local connections.

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/test.h"

namespace gxtest {
namespace {

class ConnectionsTest : public ForwardingTest {};

// The carrier takes 4 KiB each way and is always full, so each side has to go on reading while its writes wait,
// also while it reports the end of a connection.
TEST_F(ConnectionsTest, NarrowCarrierNeverStandsStill) {
  stream_->Behave({.capacity = 4096, .send_capacity = 4096, .cut_seed = 1});
  const std::size_t bytes = Scale<std::size_t>(64, 4096) * 1024;
  constexpr std::size_t kClients = 64;
  const FarSide far(stream_, FarSide::EchoAndEnd(bytes));
  std::vector<std::thread> clients;
  for (std::size_t i = 0; i < kClients; ++i) {
    clients.emplace_back([&] { EXPECT_TRUE(TcpClient(address_).Echoes(bytes)); });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_TRUE(far.WaitForCloses(kClients));
  EXPECT_EQ(far.Total().fault, "");
}

// On a slow line the host's Write takes a part of what it is given. Then two connections that both have 32 KiB
// to send take turns frame by frame.
TEST_F(ConnectionsTest, TakeTurnsOnASlowLine) {
  constexpr std::size_t kBytes = 32 * 1024;
  Connection first = Connect();
  Connection second = Connect();
  stream_->Behave({.capacity = 1});
  for (Connection* connection : {&first, &second}) {
    connection->local.Send(Pattern(kBytes));
    int under_way = 0;
    const auto has_arrived = [&, fd = connection->local.socket_handle()] {
      return ioctl(fd, SIOCOUTQ, &under_way) == 0 && under_way == 0;
    };
    ASSERT_TRUE(Eventually(has_arrived));
  }
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
    EXPECT_LE(frame->payload.size(), 4096U);
  }
}

// One Connect and one Close tell of each connection, whether its client closes it, resets it or only ends its
// own sending, and all that it sent before arrives, unless it resets.
TEST_F(ConnectionsTest, ComingAndGoingLeavesNothing) {
  int rounds = 0;
  const auto round_trip = [&] {
    Connection connection = Connect();
    const std::string bytes = Pattern(1000);
    ASSERT_TRUE(connection.local.Send(bytes));
    ASSERT_EQ(ReceiveData(connection.id, bytes.size()), bytes);
    stream_->Send({ConnectionType::Data, connection.id, bytes});
    ASSERT_EQ(connection.local.Receive(bytes.size()), bytes);
    const int way = rounds++ % 3;
    if (way == 0) {
      connection.local.Reset();  // which may overtake what was sent
    } else {
      ASSERT_TRUE(connection.local.Send(bytes));
      way == 1 ? connection.local.Close() : connection.local.FinishSending();
      ASSERT_EQ(ReceiveData(connection.id, bytes.size()), bytes);
    }
    ASSERT_TRUE(stream_->Receive(ConnectionType::Close));
    ASSERT_TRUE(way != 2 || connection.local.ReceiveToEnd() == "");
    log_.Lines();
  };
  round_trip();
  ASSERT_TRUE(stream_->WaitUntilRead());
  const std::int64_t objects = LiveObjects();
  EXPECT_GT(objects, 0);
  const std::size_t heap = HeapBytes();
  for (int left = Rounds(300, 20'000); left > 0 && !HasFatalFailure(); --left) round_trip();
  EXPECT_TRUE(Eventually([&] { return LiveObjects() <= objects; })) << LiveObjects() - objects;
  constexpr std::size_t kCached = 64 * 1024;  // freed blocks that malloc keeps for the thread count as used
  EXPECT_LE(HeapBytes(), heap + kCached);
}

// A connection that is idle after some traffic.
TEST_F(ConnectionsTest, IdleOnesTakeLittleMemory) {
  constexpr std::size_t kConnections = 300;
  constexpr std::size_t kBytesEach = 2048;
  std::vector<Connection> connections;
  connections.reserve(kConnections);
  const std::size_t heap = HeapBytes();
  while (connections.size() < kConnections && !HasFailure()) {
    connections.push_back(Connect());
    ASSERT_TRUE(connections.back().local.Send("hello"));
    ASSERT_EQ(ReceiveData(connections.back().id, 5), "hello");
  }
  EXPECT_LE(HeapBytes(), heap + kConnections * kBytesEach);
}

}  // namespace
}  // namespace gxtest

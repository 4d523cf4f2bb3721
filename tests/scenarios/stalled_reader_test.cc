// What the far side sends faster than a local client takes it, and what it promises.

#include "support/forwarding.h"
#include "support/test.h"

namespace gxtest {
namespace {

constexpr std::size_t kFrameBytes = 64 * 1024;

class StalledReaderTest : public ForwardingTest {};

// A client takes nothing of what the far side floods it with. The module holds no more memory than the mark and
// one frame, though each frame brings only 16 bytes. The others' uploads go on; their downloads go on when it
// is cut. One line tells that the reader waits, one that it was cut.
TEST_F(StalledReaderTest, IsBoundedAndCutInTheEnd) {
  const std::size_t mark = Scale<std::size_t>(1, 64) * 1024 * 1024;
  Start({.connection_bytes = mark,
         .stuck_ms = 300,
         .jam_ms = 500,
         .stall_ms = Scale<std::uint64_t>(500, 60'000)});
  stream_->Behave({.send_capacity = kFrameBytes});  // what the test would send is not on the heap
  Connection stalled = Connect();
  Connection other = Connect();
  const CRefObj<MyHandler> connection = client_->FindStream(stalled.id);
  ASSERT_TRUE(connection);
  const std::size_t heap = HeapBytes();
  std::atomic<bool> stop{false};
  std::thread far([&] {
    std::string frames;
    while (frames.size() < kFrameBytes)
      frames += Encode({ConnectionType::Data, stalled.id, std::string(16, 'x')});
    while (!stop) stream_->Send(frames);
  });
  EXPECT_TRUE(Eventually([&] { return connection->Owed() > mark; }));
  EXPECT_LE(connection->Owed(), mark + kFrameBytes + CFlowControl::kBlockBytes);
  constexpr std::size_t kSlack = 1024 * 1024;  // the carrier and the test
  EXPECT_LE(HeapBytes(), heap + mark + kFrameBytes + kSlack);
  other.local.Send("up");
  EXPECT_EQ(ReceiveData(other.id, 2), "up") << "only the road to the clients waits";

  EXPECT_EQ(stream_->Receive(), (Frame{ConnectionType::Close, stalled.id, ""}));
  stop = true;
  stream_->Send({ConnectionType::Data, other.id, "later"});
  EXPECT_EQ(other.local.Receive(5), "later");
  other.local.Send("up");
  EXPECT_EQ(stream_->Receive(), (Frame{ConnectionType::Data, other.id, "up"})) << "one Close";
  client_->ExitInstance();
  far.join();
  EXPECT_THAT(log_.Lines(), testing::Contains(testing::Pair(kGXModLogWarning, testing::_)).Times(2));
}

std::size_t ResidentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// The header of a frame says 4 GiB: memory is taken for the bytes that have come, not for those announced.
TEST_F(ForwardingTest, PromiseOfFourGigabytesCostsWhatComes) {
  if (HeapBytes() == 0) GTEST_SKIP() << "the shadow of 4 GiB costs as well";
  constexpr std::size_t kComes = 1024 * 1024;
  Connection connection = Connect();
  std::string header = Encode({ConnectionType::Data, connection.id, ""});
  std::memset(&header[4], 0xFF, 4);
  const std::size_t before = ResidentBytes();
  stream_->Send(header + std::string(kComes, 'x'));
  ASSERT_TRUE(stream_->WaitUntilRead());
  connection.local.Send("works");
  EXPECT_EQ(ReceiveData(connection.id, 5), "works");
  EXPECT_LE(ResidentBytes(), before + 6 * kComes) << "what has come is also in the hands of the test";
}

}  // namespace
}  // namespace gxtest

// What the far side sends faster than a local client takes it, and what it promises.

#include "support/forwarding.h"
#include "support/test.h"

namespace gxtest {
namespace {

constexpr std::size_t kFrameBytes = 64 * 1024;

// A client takes nothing of what the far side floods it with, 16 bytes a frame. Another one is served.
class StalledReaderTest : public ForwardingTest {
 protected:
  void Flood(std::uint64_t stall_ms) {
    Start({.connection_bytes = mark_, .stall_ms = stall_ms});
    stream_->Behave({.send_capacity = kFrameBytes});  // what the test would send is not on the heap
    stalled_ = Connect();
    other_ = Connect();
    heap_ = HeapBytes();
    Fill(*stalled_, mark_ / 2);
    std::string frames;
    while (frames.size() < kFrameBytes)
      frames += Encode({ConnectionType::Data, stalled_->id, std::string(16, 'x')});
    far_ = std::thread([this, frames] {
      while (!stop_ && !stream_->IsClosed()) stream_->Send(frames);
    });
  }
  void TearDown() override {
    client_->ExitInstance();
    far_.join();
    stalled_.reset();
    other_.reset();
    ForwardingTest::TearDown();
  }

  const std::size_t mark_ = Scale<std::size_t>(1, 64) * 1024 * 1024;
  std::optional<Connection> stalled_;
  std::optional<Connection> other_;
  std::size_t heap_ = 0;
  std::atomic<bool> stop_{false};
  std::thread far_;
};

// The module holds no more memory than the mark and one frame. Only the road to the clients waits.
TEST_F(StalledReaderTest, IsBounded) {
  Flood(60'000);
  const CRefObj<MyHandler> connection = client_->FindStream(stalled_->id);
  ASSERT_TRUE(connection);
  EXPECT_TRUE(Eventually([&] { return connection->Owed() > mark_; }));
  EXPECT_LE(connection->Owed(), mark_ + kFrameBytes + CFlowControl::kBlockBytes);
  constexpr std::size_t kSlack = 1024 * 1024;  // the carrier and the test
  EXPECT_LE(HeapBytes(), heap_ + mark_ + kFrameBytes + kSlack);
  other_->local.Send("up");
  EXPECT_EQ(ReceiveData(other_->id, 2), "up");
}

// Then the others' downloads go on. One line tells that the client was cut, and one that the reader waits; if
// the system takes half of what is queued after all, it comes again.
TEST_F(StalledReaderTest, IsCutInTheEnd) {
  Flood(1);
  ASSERT_EQ(stream_->Receive(), (Frame{ConnectionType::Close, stalled_->id, ""}));
  stop_ = true;
  stream_->Send({ConnectionType::Data, other_->id, "later"});
  EXPECT_EQ(other_->local.Receive(5), "later");
  other_->local.Send("up");
  EXPECT_EQ(stream_->Receive(), (Frame{ConnectionType::Data, other_->id, "up"})) << "one Close";
  client_->ExitInstance();
  const auto a_few = testing::AllOf(testing::Ge(2U), testing::Le(9U));
  EXPECT_THAT(log_.Lines(), testing::Contains(testing::Pair(kGXModLogWarning, testing::_)).Times(a_few));
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

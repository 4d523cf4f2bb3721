// What the far side sends faster than a local client takes it, and what it promises.

#include "support/forwarding.h"
#include "support/scale.h"
#include "support/test.h"

namespace gxtest {
namespace {

constexpr std::size_t kFrameBytes = 64 * 1024;

class StalledReaderTest : public ForwardingTest {
 protected:
  void SetUp() override {
    Start({.connection_bytes = mark_, .stuck_ms = 300, .jam_ms = 500, .stall_ms = stall_ms_});
    stream_->Behave({.send_capacity = kFrameBytes});  // what the test would send is not on the heap
  }

  // The far side fills `connection` with frames of that size until the module stops reading; then it waits in
  // Send.
  void Flood(std::uint32_t id, std::size_t frame_bytes = kFrameBytes) {
    far_ = std::thread([this, id, frame_bytes] {
      for (std::uint64_t at = 0; !stream_->IsClosed() && !stop_;) {
        std::string frames;
        do {
          frames += Encode({ConnectionType::Data, id, Pattern(frame_bytes, id, at)});
          at += frame_bytes;
        } while (frames.size() < kFrameBytes);
        stream_->Send(frames);
      }
    });
  }
  bool Waits(const CRefObj<MyHandler>& connection) {
    return Eventually([&] { return connection->Owed() > mark_; });
  }
  std::size_t WarningCount() {
    std::size_t count = 0;
    for (const auto& line : log_.Lines()) count += line.first == kGXModLogWarning ? 1 : 0;
    return count;
  }
  void TearDown() override {
    stop_ = true;
    if (client_) client_->ExitInstance();
    if (far_.joinable()) far_.join();
    ForwardingTest::TearDown();
  }

  const std::size_t mark_ = Scale<std::size_t>(1, 64) * 1024 * 1024;
  const std::uint64_t stall_ms_ = Scale<std::uint64_t>(500, 60'000);
  std::thread far_;
  std::atomic<bool> stop_{false};
};

// It holds no more memory than the mark and one frame, though each frame brings only 16 bytes. The others'
// uploads go on; their downloads go on when it is cut. One line tells that the reader waits, one that it was
// cut.
TEST_F(StalledReaderTest, IsBoundedAndCutInTheEnd) {
  Connection stalled = Connect();
  Connection other = Connect();
  const CRefObj<MyHandler> connection = client_->FindStream(stalled.id);
  ASSERT_TRUE(connection);
  const std::size_t heap = HeapBytes();
  Flood(stalled.id, 16);
  ASSERT_TRUE(Waits(connection));
  EXPECT_LE(connection->Owed(), mark_ + kFrameBytes + CFlowControl::kBlockBytes);
  constexpr std::size_t kSlack = 1024 * 1024;  // the carrier and the test
  EXPECT_LE(HeapBytes(), heap + mark_ + kFrameBytes + kSlack);
  other.local.Send("up");
  EXPECT_EQ(ReceiveData(other.id, 2), "up") << "only the road to the clients waits";

  const auto end = stream_->Receive();
  ASSERT_TRUE(end);
  EXPECT_EQ(*end, (Frame{ConnectionType::Close, stalled.id, ""}));
  stop_ = true;
  stream_->Send({ConnectionType::Data, other.id, "later"});
  EXPECT_EQ(other.local.Receive(5), "later");
  other.local.Send("up");
  EXPECT_EQ(stream_->Receive(), (Frame{ConnectionType::Data, other.id, "up"})) << "one Close";
  EXPECT_EQ(WarningCount(), 2U);
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

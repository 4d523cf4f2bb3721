// Local clients that take nothing, or slowly, while the far side goes on.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/forwarding.h"
#include "support/heap.h"
#include "support/scale.h"

namespace {

using gxtest::ConnectionType;
using gxtest::Eventually;
using gxtest::Frame;
using gxtest::Measure;
using gxtest::Pattern;
using gxtest::PatternFault;
using gxtest::Scale;

constexpr std::size_t kFrameBytes = 64 * 1024;

class StalledReaderTest : public gxtest::ForwardingTest {
 protected:
  void SetUp() override {
    Start({.high_mark_bytes = mark_, .stall_ms = stall_ms_});
    stream_->Behave({.send_capacity = kFrameBytes});  // what the test would send is not on the heap
  }

  // The far side fills `connection` until the module stops reading; then it waits in Send.
  void Flood(std::uint32_t id) {
    far_ = std::thread([this, id] {
      for (std::uint64_t at = 0; !stream_->IsClosed() && !stop_; at += kFrameBytes) {
        stream_->Send({ConnectionType::Data, id, Pattern(kFrameBytes, id, at)});
        sent_ = at + kFrameBytes;
      }
    });
  }
  bool IsPaused() {
    return Eventually([&] {
      for (const auto& [level, line] : log_.Lines()) {
        if (level == kGXModLogWarning && line.find("takes its data too slowly") != line.npos) return true;
      }
      return false;
    });
  }
  void TearDown() override {
    stop_ = true;
    if (client_) client_->ExitInstance();
    if (far_.joinable()) far_.join();
    ForwardingTest::TearDown();
  }

  const std::size_t mark_ = Scale<std::size_t>(4, 64) * 1024 * 1024;
  const std::uint64_t stall_ms_ = Scale<std::uint64_t>(1000, 60'000);
  std::thread far_;
  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> sent_{0};
};

// It holds no more than the mark and one frame, the others go on until the mark is reached, and it is cut when
// its time is up; then all is given back.
TEST_F(StalledReaderTest, IsBoundedAndCutInTheEnd) {
  Connection stalled = Connect();
  Connection other = Connect();
  const std::size_t heap = gxtest::HeapBytes();
  Flood(stalled.id);
  for (std::uint64_t i = 0; sent_ < mark_ / 2; ++i) {
    const std::string question = Pattern(1000, other.id, i * 1000);
    ASSERT_TRUE(other.local.Send(question));
    ASSERT_EQ(ReceiveData(other.id, question.size()), question);
    stream_->Send({ConnectionType::Data, other.id, question});
    ASSERT_EQ(other.local.Receive(question.size()), question) << i;
  }
  ASSERT_TRUE(IsPaused());
  const CRefObj<MyHandler> connection = client_->FindStream(stalled.id);
  ASSERT_TRUE(connection);
  EXPECT_LE(connection->Owed(), mark_ + kFrameBytes);
  constexpr std::size_t kSlack = 1024 * 1024;  // the carrier and the test, and what describes the frames
  EXPECT_LE(gxtest::HeapBytes(), heap + mark_ + kFrameBytes + kSlack);
  other.local.Send("up");
  EXPECT_EQ(ReceiveData(other.id, 2), "up") << "only the road to the clients waits";

  const long waited_ms = Measure([&] {
    EXPECT_TRUE(Eventually([&] { return !client_->FindStream(stalled.id); }, std::chrono::minutes(2)));
  });
  EXPECT_GE(waited_ms, static_cast<long>(stall_ms_) * 8 / 10);
  EXPECT_LE(waited_ms, static_cast<long>(stall_ms_) + 5000);
  const auto end = stream_->Receive();
  ASSERT_TRUE(end);
  EXPECT_EQ(*end, (Frame{ConnectionType::Close, stalled.id, ""}));
  stop_ = true;
  stream_->Send({ConnectionType::Data, other.id, "later"});
  EXPECT_EQ(other.local.Receive(5), "later");
}

TEST_F(StalledReaderTest, DoesNotDelayAStop) {
  Connection stalled = Connect();
  Flood(stalled.id);
  ASSERT_TRUE(IsPaused());
  EXPECT_LT(Measure([&] { client_->ExitInstance(); }), 500);
}

// A slow client only slows: everything arrives, and the mark bounds what waits.
TEST_F(StalledReaderTest, SlowOneGetsEverything) {
  Connection slow = Connect();
  Flood(slow.id);
  ASSERT_TRUE(IsPaused());
  const CRefObj<MyHandler> connection = client_->FindStream(slow.id);
  ASSERT_TRUE(connection);
  std::uint64_t received = 0;
  while (received < 4 * mark_) {
    const std::string part = slow.local.Receive(kFrameBytes);
    ASSERT_EQ(PatternFault(part, slow.id, received), "");
    ASSERT_EQ(part.size(), kFrameBytes);
    received += part.size();
    EXPECT_LE(connection->Owed(), mark_ + kFrameBytes);
  }
}

// The far side waits for us to read, and we for a client that only goes on when the far side reads: reading on
// is what sets them free.
TEST_F(StalledReaderTest, DoesNotHoldAFarSideThatWaitsItself) {
  Connection stalled = Connect();
  Connection busy = Connect();
  stream_->Behave({.capacity = 1, .send_capacity = kFrameBytes});
  busy.local.Send(Pattern(20'000));
  ASSERT_TRUE(stream_->WaitUntilWriteBlocks());
  Flood(stalled.id);
  EXPECT_TRUE(Eventually([&] { return sent_ > 2 * mark_; }));
}

}  // namespace

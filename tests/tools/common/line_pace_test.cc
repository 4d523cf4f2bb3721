#include "common/line_pace.h"

#include "common/receipts.h"
#include "support/test.h"

namespace gxtool {
namespace {

using Clock = LinePace::Clock;
using Seconds = std::chrono::duration<double>;
constexpr std::chrono::microseconds kStep{250};

Clock::time_point g_now{std::chrono::hours(1)};
Clock::time_point Now() { return g_now; }

// A simulated line with an unlimited buffer and its own clock, which moves in steps. One end sends as much as
// its pace allows, and the other end acknowledges.
class Line {
 public:
  Line(double bytes_per_s, double delay_s) : rate(bytes_per_s), delay(delay_s) {
    receipts.Start();
    Acknowledge();
  }

  // Settles, then returns which part of the line is used.
  double Used(double settle_s, double seconds) {
    Run(settle_s);
    return Run(seconds);
  }
  double Run(double seconds) {
    queued_s.clear();
    const std::uint64_t before = delivered;
    const auto end = g_now + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
    while (g_now < end) Step();
    std::ranges::sort(queued_s);
    return static_cast<double>(delivered - before) / (rate * seconds);
  }
  void Send(std::size_t bytes) {
    pace.OnSent(bytes);
    buffer_.push_back(bytes);
    buffered_ += bytes;
  }
  // In the last Run, this percentage of the bytes waited in the buffer for at most this time.
  double Queue(std::size_t percent = 95) const { return queued_s[queued_s.size() * percent / 100]; }

  double rate;
  double delay;
  double jitter = 0;     // seconds
  bool stalled = false;  // nothing moves
  bool sends = true;
  LinePace pace{&Now};
  Receipts receipts;
  std::uint64_t delivered = 0;
  std::vector<double> queued_s;

 private:
  struct Arrival {
    Clock::time_point time;
    std::size_t bytes;
    bool ends_frame;
  };

  void Step() {
    g_now += kStep;
    while (!answers_.empty() && answers_.front().first <= g_now) {
      EXPECT_TRUE(pace.OnAcknowledgement(answers_.front().second));
      answers_.pop_front();
    }
    while (sends && pace.limits() && pace.HasRoomFor(pace.FrameBytes())) Send(pace.FrameBytes());
    if (!stalled) Carry();
    queued_s.push_back(static_cast<double>(buffered_) / rate);
    while (!arrivals_.empty() && arrivals_.front().time <= g_now) {
      receipts.OnReceived(arrivals_.front().bytes);
      receipts.OnRead(arrivals_.front().ends_frame, g_now);
      receipts.Permit(0);
      delivered += arrivals_.front().bytes;
      arrivals_.pop_front();
    }
    if (const auto due = receipts.due(g_now); due && *due <= g_now) Acknowledge();
  }

  void Carry() {
    budget_ = std::min(budget_ + rate * Seconds(kStep).count(), static_cast<double>(buffered_));
    while (!buffer_.empty() && budget_ >= 1) {
      const std::size_t bytes = std::min(buffer_.front(), static_cast<std::size_t>(budget_));
      buffer_.front() -= bytes;
      buffered_ -= bytes;
      budget_ -= static_cast<double>(bytes);
      arrivals_.push_back({After(&last_arrival_), bytes, buffer_.front() == 0});
      if (buffer_.front() == 0) buffer_.pop_front();
    }
  }

  void Acknowledge() { answers_.emplace_back(After(&last_answer_), receipts.Take(g_now, false)); }

  // Late arrivals keep their order.
  Clock::time_point After(Clock::time_point* last) {
    random_ = random_ * 1103515245 + 12345;
    const double late = jitter * (random_ >> 16 & 0x7FFF) / 0x7FFF;
    *last = std::max(*last, g_now + std::chrono::duration_cast<Clock::duration>(Seconds(delay + late)));
    return *last;
  }

  std::deque<std::size_t> buffer_;  // what is left of each frame
  std::size_t buffered_ = 0;
  double budget_ = 0;
  std::deque<Arrival> arrivals_;
  std::deque<std::pair<Clock::time_point, Acknowledgement>> answers_;
  Clock::time_point last_arrival_{};
  Clock::time_point last_answer_{};
  std::uint32_t random_ = 1;
};

// How long bytes may wait, in addition to the two frames that the sender cannot take back.
constexpr double kWait = 0.060;
constexpr double kFrameBytes = 4096 + 16;

using Kind = std::pair<double, double>;  // rate and delay

TEST(LinePaceTest, LinesAreBusyAndNothingQueuesForLong) {
  for (const auto& [rate, delay] :
       {Kind{11.5e3, 0.005}, {100e3, 0.02}, {1e6, 0.02}, {10e6, 0.1}, {50e6, 0.001}}) {
    for (const double jitter : {0.0, 0.015}) {
      Line line(rate, delay);
      line.jitter = jitter;
      EXPECT_GE(line.Used(4, 30), jitter == 0 ? 0.98 : 0.88) << rate << " " << jitter;
      EXPECT_LE(line.Queue(), kWait + 2 * kFrameBytes / rate) << rate << " " << jitter;
      if (jitter > 0) continue;
      // After a drain the sender tries a larger window; only part of a round trip may queue.
      EXPECT_LE(line.Queue(99), 0.055 + 0.3 * delay + 4 * 528 / rate) << rate;
    }
  }
  // The window doubles eight times, once per round trip. A short queue behind a burst does not end the growth.
  EXPECT_GE(Line(10e6, 0.1).Used(2, 0.5), 0.95) << "a long line is soon busy";
}

TEST(LinePaceTest, FollowsALineThatChanges) {
  for (const auto& [rate, delay] : {Kind{100e3, 0.02}, {1e6, 0.02}, {10e6, 0.02}}) {
    Line line(rate, delay);
    line.Run(15);
    line.rate = rate / 10;
    EXPECT_GE(line.Used(3, 10), 0.95) << rate;
    EXPECT_LE(line.Queue(), kWait + 2 * kFrameBytes / line.rate) << rate;
    line.rate = rate;
    EXPECT_GE(line.Used(5, 1), 0.9) << rate << " again";
    line.delay += 0.1;
    EXPECT_GE(line.Used(12, 2), 0.9) << rate << " behind a longer road";
    line.stalled = true;
    line.Run(4);
    line.stalled = false;
    EXPECT_GE(line.Used(2, 2), 0.9) << rate << " behind a stall";
    EXPECT_LE(line.Queue(), kWait + 2 * kFrameBytes / rate) << rate << " behind a stall";
  }
}

// Small messages in both directions, on a fast local line: acknowledgements ride along with them.
TEST(ReceiptsTest, AConversationNeedsNoAcknowledgementOfItsOwn) {
  LinePace pace(&Now);
  Receipts receipts;
  receipts.Start();
  EXPECT_TRUE(pace.OnAcknowledgement(receipts.Take(g_now, false)));
  const auto receive = [&] {
    EXPECT_TRUE(pace.HasRoomFor(80));
    pace.OnSent(80);
    g_now += std::chrono::microseconds(80);
    receipts.OnReceived(80);
    receipts.OnRead(true, g_now);
    receipts.Permit(0);
  };
  int riding = 0;
  for (int trip = 0; trip < 10'000; ++trip) {
    receive();
    if (riding > 0) {
      ASSERT_GE(receipts.due(g_now), g_now + 4 * Receipts::kInterval) << trip << ": a timer is near";
    }
    if (!receipts.rides(g_now)) continue;
    EXPECT_TRUE(pace.OnAcknowledgement(receipts.Take(g_now, true)));
    ++riding;
  }
  EXPECT_LT(riding, 500);
  g_now += std::chrono::seconds(1);
  receive();
  EXPECT_LE(receipts.due(g_now), g_now) << "behind a pause the time counts";
  // The last bytes of a burst are acknowledged soon; a late acknowledgement looks like a queue to the sender.
  receipts.Take(g_now, false);
  receipts.OnReceived(600);
  receipts.OnRead(true, g_now += std::chrono::milliseconds(1));
  EXPECT_LE(receipts.due(g_now), g_now + Receipts::kInterval);
}

// Bytes that are sent now and then, and some of them arrive late, do not show what the line carries.
TEST(LinePaceTest, KeystrokesMeasureNoLine) {
  Line line(1e6, 0.02);
  line.jitter = 0.03;
  line.sends = false;
  for (int key = 0; key < 100; ++key) {
    line.Send(60);
    line.Run(0.2);
  }
  EXPECT_FALSE(line.pace.view().known);
}

TEST(LinePaceTest, WhatNoHonestSideAcknowledgesCountsForNothing) {
  LinePace pace(&Now);
  EXPECT_TRUE(pace.OnAcknowledgement({0, 1 << 20}));
  pace.OnSent(pace.Room());
  EXPECT_FALSE(pace.HasRoomFor(1));
  g_now += std::chrono::milliseconds(10);
  EXPECT_TRUE(pace.OnAcknowledgement({1000, 1 << 20}));
  const std::uint64_t left = pace.Room();
  EXPECT_FALSE(pace.OnAcknowledgement({0, 1 << 20})) << "falls";
  EXPECT_FALSE(pace.OnAcknowledgement({1000, 0})) << "takes back";
  pace.OnReceived(pace.sent() + 1);
  EXPECT_EQ(pace.Room(), left);
  EXPECT_FALSE(pace.OnAcknowledgement({~std::uint64_t{0}, ~std::uint64_t{0}})) << "was never sent";
  EXPECT_EQ(pace.view().under_way, 0U);
}

}  // namespace
}  // namespace gxtool

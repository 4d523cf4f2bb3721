#include "common/line_pace.h"

#include <algorithm>
#include <utility>

namespace gxtool {
namespace {

using std::chrono::milliseconds;
using Seconds = std::chrono::duration<double>;

constexpr double kSlackSeconds = Seconds(LinePace::kSlack).count();
constexpr double kFrameSeconds = 0.010;  // time of the line for one frame
constexpr std::size_t kLeastDataBytes = 512;
constexpr std::size_t kSlowDataBytes = 4096;  // the maximum where kMostDataBytes take longer than that
// Two frames, and a Connect before them.
constexpr std::uint64_t kStartBytes = 2 * (gxmod::kFrameHeaderBytes + kSlowDataBytes) + kLeastDataBytes;
constexpr std::uint64_t kLeastFrames = 4;  // on a slow line; acknowledging takes the time of two of them

constexpr double kQueueSeconds = kSlackSeconds / 2;  // round trips longer than the minimum by this show a queue
constexpr double kGrowth = 2;
// In the first rounds on a line whose rate is known: after a drain the line is empty, so two full rounds show
// no queue although the line is as fast as before.
constexpr double kFirstGrowth = 1.25;
constexpr int kFirstRounds = 2;
constexpr milliseconds kRateTime{500};          // the rate is the maximum of the last one to two of these times
constexpr milliseconds kRoundTripTime{10'000};  // after this the least round trip is measured again
constexpr double kRoundTripTimes = 100;         // the same in round trips, so that measuring costs one per cent
constexpr double kLong = 1.25;                  // factor on the expected round trip
constexpr milliseconds kLongTime{1000};
constexpr double kLeastSeconds = 1e-6;

constexpr std::size_t kMarks = 256;
constexpr std::uint64_t kMarksInWindow = 32;

}  // namespace

void LinePace::OnSent(std::size_t bytes) {
  const std::uint64_t before = under_way();
  sent_ += bytes;
  if (!limits_) return;
  round_full_ = round_full_ || under_way() + FrameBytes() > window_;
  // Reading the clock for each frame would be noticeable on a fast line.
  const bool sparse = before != 0 && sent_ - marked_ < window_ / kMarksInWindow;
  if (sparse || marks_.size() >= kMarks) return;
  const Clock::time_point now = now_();
  // After a pause the time since the last acknowledgement does not measure the line.
  marks_.push_back({sent_, now, before, received_, before == 0 ? now : received_at_});
  marked_ = sent_;
}

bool LinePace::OnAcknowledgement(const Acknowledgement& totals) {
  if (ended_) return true;
  const bool honest =
      totals.received >= received_ && totals.received <= sent_ && totals.permitted >= permitted_;
  const Clock::time_point now = now_();
  if (!limits_) {
    limits_ = true;
    received_ = std::min(totals.received, sent_);
    received_at_ = round_trip_at_ = rate_since_ = now;
    Update();
  }
  permitted_ = std::max(permitted_, totals.permitted);
  Take(std::min(totals.received, sent_), now);
  return honest;
}

void LinePace::OnReceived(std::uint64_t total) {
  if (limits_ && total <= sent_) Take(total, now_());
}

std::uint64_t LinePace::Room(std::size_t spare) const {
  if (!limits_) return ~std::uint64_t{0};
  if (drains_) return 0;
  const std::uint64_t window = window_ + spare;
  const std::uint64_t in_window = window - std::min(window, under_way());
  return std::min(in_window, permitted_ - std::min(permitted_, sent_));
}

bool LinePace::HasRoomFor(std::size_t bytes) const {
  if (Room() >= bytes) return true;
  return under_way() == 0 && permitted_ >= sent_ + bytes;
}

LinePace::View LinePace::view() const { return {line_limits_, rate_, round_trip_, limits_ ? under_way() : 0}; }

void LinePace::Take(std::uint64_t received, Clock::time_point now) {
  if (received <= received_) return;
  received_ = received;
  while (!marks_.empty() && marks_.front().end <= received_) {
    const Mark mark = marks_.front();
    marks_.pop_front();
    TakeSample(mark, now);
  }
  received_at_ = now;
  if (received_ >= round_end_) EndRound(now);
  if (under_way() == 0) drains_ = false;
  Update();
}

void LinePace::TakeSample(const Mark& mark, Clock::time_point now) {
  const double seconds = std::max(Seconds(now - mark.time).count(), kLeastSeconds);
  TakeRoundTrip(mark, seconds, now);
  const bool has_queued = seconds >= round_trip_ + kQueueSeconds &&
                          mark.under_way >= 2 * (gxmod::kFrameHeaderBytes + kLeastDataBytes);
  const double rate_time = std::max(Seconds(now - mark.received_at).count(), seconds);
  TakeRate(static_cast<double>(received_ - mark.received) / rate_time, has_queued, now);
}

void LinePace::TakeRoundTrip(const Mark& mark, double seconds, Clock::time_point now) {
  const bool of_empty_line = mark.under_way == 0;
  const auto time = std::max<Clock::duration>(
      kRoundTripTime, std::chrono::duration_cast<Clock::duration>(Seconds(kRoundTripTimes * round_trip_)));
  const bool old = now - round_trip_at_ >= time;
  if (round_trip_ == 0 || seconds <= round_trip_ || (of_empty_line && (old || renews_))) {
    round_trip_ = seconds;
    round_trip_at_ = now;
    renews_ = false;
  } else if (old) {
    Drain(now);
  }
  round_least_ = round_least_ == 0 ? seconds : std::min(round_least_, seconds);

  const double expected =
      std::max(round_trip_ + kSlackSeconds, static_cast<double>(window_) / std::max(rate_, 1.0));
  if (seconds <= kLong * expected) {
    long_since_ = {};
  } else if (long_since_ == Clock::time_point{}) {
    long_since_ = now;
  } else if (now - long_since_ >= kLongTime) {
    Drain(now);
  }
}

// A sender with little data gives small samples, which do not measure the line.
void LinePace::TakeRate(double rate, bool has_queued, Clock::time_point now) {
  if (!has_queued && rate <= rate_) return;
  if (has_queued && now - rate_since_ >= kRateTime) {
    rate_before_ = rate_now_;
    rate_now_ = 0;
    rate_since_ = now;
  }
  rate_now_ = std::max(rate_now_, rate);
  rate_ = std::max(rate_now_, rate_before_);
}

// The least round trip of a round shows a queue that lasts, not one that a burst causes.
void LinePace::EndRound(Clock::time_point now) {
  round_end_ = sent_;
  if (round_least_ == 0) return;
  const bool queues = round_least_ >= round_trip_ + kQueueSeconds;
  // Earlier round trips may have been measured with frames that were too long for this line.
  if (queues && round_full_ && !std::exchange(line_limits_, true) && rate_ * kFrameSeconds < kSlowDataBytes)
    Drain(now);
  growing_rounds_ = round_full_ && !queues ? growing_rounds_ + 1 : 0;
  round_full_ = false;
  round_least_ = 0;
}

double LinePace::growth() const {
  if (growing_rounds_ == 0) return 1;
  return line_limits_ && growing_rounds_ <= kFirstRounds ? kFirstGrowth : kGrowth;
}

void LinePace::Drain(Clock::time_point now) {
  drains_ = renews_ = true;
  long_since_ = {};
  round_trip_at_ = now;
}

void LinePace::Update() {
  const double frame = rate_ * kFrameSeconds;
  if (frame >= static_cast<double>(kMostDataBytes)) {
    data_bytes_ = kMostDataBytes;
  } else {
    const auto least = static_cast<double>(line_limits_ ? kLeastDataBytes : kSlowDataBytes);
    data_bytes_ = static_cast<std::size_t>(std::clamp(frame, least, static_cast<double>(kSlowDataBytes)));
  }
  const double carried = rate_ * (round_trip_ * growth() + kSlackSeconds);
  const std::uint64_t least = line_limits_ ? std::min(kLeastFrames * FrameBytes(), kStartBytes) : kStartBytes;
  window_ = std::max(static_cast<std::uint64_t>(carried), least);
}

}  // namespace gxtool

#include "gx-ssh/rate_meter.h"

#include <algorithm>

namespace gxtool {
namespace {

using RoundSeconds = std::chrono::duration<double>;

// Limits of the window. A larger one would only fill the line's buffers, and a slow line might not deliver it
// in time.
constexpr std::size_t kLeastWindow = 1024;
constexpr std::size_t kLargestWindow = 4 * 1024 * 1024;
constexpr double kGrowth = 1.25;
constexpr int kFullRounds = 3;  // the line is full after that many rounds without growth

}  // namespace

RateMeter::RateMeter(Clock::time_point now, std::uint64_t delivered, double round_trip_s)
    : round_trip_s_(round_trip_s),
      window_(kLeastWindow),
      round_begin_(now),
      round_from_(delivered),
      count_begin_(now),
      count_from_(delivered) {}

void RateMeter::OnRound(Clock::time_point now, std::uint64_t delivered) {
  const double seconds = std::max(RoundSeconds(now - round_begin_).count(), 1e-6);
  const double rate = static_cast<double>(delivered - round_from_) / seconds;
  const bool grew = most_ == 0 || rate > kGrowth * most_;
  round_begin_ = now;
  round_from_ = delivered;
  if (!grew && rounds_without_growth_ == kFullRounds) {
    longest_s_ = std::max(longest_s_, seconds);
  } else {
    count_begin_ = now;
    count_from_ = delivered;
    longest_s_ = 0;
    rounds_without_growth_ = grew ? 0 : rounds_without_growth_ + 1;
    if (grew) most_ = rate;
  }
  const double round_trips = rounds_without_growth_ == 0 ? 2 : 1;
  const double window = most_ * (round_trips * round_trip_s_ + RoundSeconds(kQueueTime).count());
  window_ = std::clamp(static_cast<std::size_t>(window), kLeastWindow, kLargestWindow);
}

bool RateMeter::done() const {
  return round_begin_ - count_begin_ >= kCountTime || round_from_ - count_from_ >= kCountBytes;
}

double RateMeter::rate() const {
  if (round_begin_ == count_begin_) return most_;
  return static_cast<double>(round_from_ - count_from_) / RoundSeconds(round_begin_ - count_begin_).count();
}

}  // namespace gxtool

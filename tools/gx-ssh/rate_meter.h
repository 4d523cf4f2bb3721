// Measures the rate of a line, for --probe.
#ifndef GX_SSH_RATE_METER_H
#define GX_SSH_RATE_METER_H

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace gxtool {

// Counts the delivered bytes in rounds: a round lasts until a ping that was sent at its begin, behind other
// data, is answered. A line is filled step by step, so only the rounds count that come after the rate has
// stopped growing.
class RateMeter {
 public:
  using Clock = std::chrono::steady_clock;

  // The window adds this time of the line to a round trip, in order to show what the line queues.
  static constexpr std::chrono::milliseconds kQueueTime{500};
  // The end of counting.
  static constexpr std::chrono::milliseconds kCountTime{1'500};
  static constexpr std::uint64_t kCountBytes = 64 * 1024 * 1024;

  // The first round begins. `delivered`: bytes until now, of whatever.
  RateMeter(Clock::time_point now, std::uint64_t delivered, double round_trip_s);

  // A round has ended, and the next one begins.
  void OnRound(Clock::time_point now, std::uint64_t delivered);

  // How many bytes should be under way.
  std::size_t window() const { return window_; }
  bool done() const;
  // Bytes per second. Unless done, it may be lower than the line's; 0 before the first round has ended.
  double rate() const;
  // The longest of the rounds that count.
  double longest_round_s() const { return longest_s_; }

 private:
  const double round_trip_s_;  // of the empty line
  std::size_t window_;
  Clock::time_point round_begin_;
  std::uint64_t round_from_;  // bytes delivered before the round
  double most_ = 0;           // a round's rate
  int rounds_without_growth_ = 0;
  Clock::time_point count_begin_;
  std::uint64_t count_from_;
  double longest_s_ = 0;
};

}  // namespace gxtool

#endif  // GX_SSH_RATE_METER_H

// Measures the rate of a line, for --probe.
#ifndef GX_SSH_RATE_METER_H
#define GX_SSH_RATE_METER_H

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace gxtool {

// Counts delivered bytes in rounds. A round lasts from sending a ping, behind other data, to its answer. The
// line is filled step by step, so only the rounds after the rate has stopped growing count.
class RateMeter {
 public:
  using Clock = std::chrono::steady_clock;

  // The window exceeds a round trip by this time, to measure the line's queue.
  static constexpr std::chrono::milliseconds kQueueTime{500};
  // Counting ends after this time or this many bytes.
  static constexpr std::chrono::milliseconds kCountTime{1'500};
  static constexpr std::uint64_t kCountBytes = 64 * 1024 * 1024;

  // Begins the first round. `delivered`: bytes so far, counted from any start.
  RateMeter(Clock::time_point now, std::uint64_t delivered, double round_trip_s);

  // Ends the round and begins the next one.
  void OnRound(Clock::time_point now, std::uint64_t delivered);

  // How many bytes should be under way.
  std::size_t window() const { return window_; }
  bool done() const;
  // Bytes per second: the line's when done, before that perhaps less; 0 in the first round.
  double rate() const;
  // The longest of the rounds that count.
  double longest_round_s() const { return longest_s_; }

 private:
  const double round_trip_s_;  // of the empty line
  std::size_t window_;
  Clock::time_point round_begin_;
  std::uint64_t round_from_;  // bytes delivered before the round
  double most_ = 0;           // the highest rate of a round
  int rounds_without_growth_ = 0;
  Clock::time_point count_begin_;
  std::uint64_t count_from_;
  double longest_s_ = 0;
};

}  // namespace gxtool

#endif  // GX_SSH_RATE_METER_H

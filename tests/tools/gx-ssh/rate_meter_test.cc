#include "gx-ssh/rate_meter.h"

#include <algorithm>

#include "support/test.h"

namespace gxtool {
namespace {

RateMeter::Clock::time_point At(double second) {
  return RateMeter::Clock::time_point(
      std::chrono::duration_cast<RateMeter::Clock::duration>(std::chrono::duration<double>(second)));
}

struct Way {
  double rate;
  double round_trip_s;
};

// The window grows from a few bytes to what the line carries; only then does it count, in the promised time.
TEST(RateMeterTest, LongAndSlowLinesAreFullBeforeTheyCount) {
  for (const auto& [rate, round_trip] :
       {Way{1e6, 0.04}, {1e6, 0.6}, {10e6, 0.2}, {11.5e3, 0.01}, {1200, 0.01}, {1e9, 0.0001}}) {
    double time = 1;
    double delivered = 1e6;  // before
    RateMeter meter(At(time), static_cast<std::uint64_t>(delivered), round_trip);
    for (int round = 0; !meter.done(); ++round) {
      const double bytes = static_cast<double>(meter.window());
      // Early in the start nothing comes through for a while: that alone is no full line.
      const double stall = round == 2 ? 0.7 : 0;
      time += std::max(round_trip, bytes / rate) + stall;
      delivered += bytes;
      meter.OnRound(At(time), static_cast<std::uint64_t>(delivered));
    }
    EXPECT_NEAR(meter.rate() / rate, 1, 0.05) << rate << " " << round_trip;
    EXPECT_LE(time - 1, 10 + 20 * round_trip) << rate << " " << round_trip;
    EXPECT_LE(meter.longest_round_s() - round_trip, std::max(0.6, 1024 / rate)) << rate << " " << round_trip;
  }
}

}  // namespace
}  // namespace gxtool

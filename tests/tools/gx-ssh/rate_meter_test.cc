#include "gx-ssh/rate_meter.h"

#include "support/test.h"

namespace gxtool {
namespace {

RateMeter::Clock::time_point At(double second) {
  return RateMeter::Clock::time_point(std::chrono::nanoseconds(static_cast<std::int64_t>(second * 1e9)));
}

// The window grows from a few bytes to what the line carries; the rate counts from then on.
TEST(RateMeterTest, LongAndSlowLinesAreFullBeforeTheyCount) {
  const std::pair<double, double> lines[] = {{1e6, 0.04},    {1e6, 0.6},   {10e6, 0.2},
                                             {11.5e3, 0.01}, {1200, 0.01}, {1e9, 0.0001}};
  for (const auto& [rate, round_trip] : lines) {
    double time = 1;
    double delivered = 1e6;  // before
    RateMeter meter(At(time), static_cast<std::uint64_t>(delivered), round_trip);
    for (int round = 0; !meter.done(); ++round) {
      const double bytes = static_cast<double>(meter.window());
      // A stall early in the growth must not be taken for a full line.
      const double stall = round == 2 ? 0.7 : 0;
      time += std::max(round_trip, bytes / rate) + stall;
      delivered += bytes;
      meter.OnRound(At(time), static_cast<std::uint64_t>(delivered));
    }
    SCOPED_TRACE(testing::Message() << rate << " bytes a second, " << round_trip << " s");
    EXPECT_NEAR(meter.rate() / rate, 1, 0.05);
    EXPECT_LE(time - 1, 10 + 20 * round_trip);
    EXPECT_LE(meter.longest_round_s() - round_trip, std::max(0.6, 1024 / rate));
  }
}

}  // namespace
}  // namespace gxtool

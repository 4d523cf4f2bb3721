#include "gx-ssh/backoff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace gxtool {
namespace {

TEST(BackoffTest, PausesGrowBetweenTheirBoundsAndVary) {
  Backoff backoff;
  std::chrono::milliseconds base = Backoff::kShortest;
  std::set<std::int64_t> seen;
  for (int attempt = 0; attempt < 40; ++attempt) {
    const auto pause = backoff.Next();
    EXPECT_GE(pause, std::max(base / 2, Backoff::kShortest)) << attempt;
    EXPECT_LE(pause, base) << attempt;
    base = std::min(base * 2, Backoff::kLongest);
    seen.insert(pause.count());
  }
  EXPECT_GT(seen.size(), 10u);
  EXPECT_EQ(backoff.attempts(), 40);
  backoff.Reset();
  EXPECT_EQ(backoff.Next(), Backoff::kShortest);
}

}  // namespace
}  // namespace gxtool

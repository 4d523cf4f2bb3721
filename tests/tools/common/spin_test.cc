#include "common/spin.h"

#include "support/test.h"

namespace gxtool {
namespace {

using namespace std::chrono_literals;

struct Processor {
  static Spin::Clock::time_point Now() { return now; }
  static void Yield() { now += yield; }

  static inline Spin::Clock::time_point now;
  static inline std::chrono::microseconds yield;
};

TEST(SpinTest, ASliceOfAnotherProgramEndsTheSpinningForAWhile) {
  Spin spin(&Processor::Now, &Processor::Yield);
  int calls = 0;
  Processor::yield = 10us;
  EXPECT_TRUE(spin.Wait(50us, [&] { return ++calls == 3; }));
  EXPECT_FALSE(spin.Wait(50us, [&] { return ++calls == 9; }));
  EXPECT_EQ(calls, 8);
  EXPECT_FALSE(spin.pauses());
  Processor::yield = 4ms;
  EXPECT_TRUE(spin.Wait(50us, [] { return true; }));
  Processor::now += 99ms;
  EXPECT_TRUE(spin.pauses());
  EXPECT_FALSE(spin.Wait(50us, [] { return true; }));
  Processor::now += 2ms;
  EXPECT_FALSE(spin.pauses());
}

}  // namespace
}  // namespace gxtool

#include "base/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace {

using tarn::event_t;
using Clock = std::chrono::steady_clock;

struct Destroy {
  void operator()(event_t* event) const { tarn::event_destroy(event); }
};
using Event = std::unique_ptr<event_t, Destroy>;

Event Make(bool manual_reset, bool initial_state) {
  return Event(tarn::event_create(manual_reset, initial_state));
}

TEST(EventTest, AutoResetIsConsumedByOneWaitAndManualResetIsNot) {
  for (const bool manual : {false, true}) {
    const Event event = Make(manual, true);
    const int second = manual ? tarn::event_ok : tarn::event_timeout;
    EXPECT_EQ(tarn::event_timedwait(event.get(), 0), tarn::event_ok);
    EXPECT_EQ(tarn::event_timedwait(event.get(), 0), second);
    EXPECT_EQ(tarn::event_set(event.get()), tarn::event_ok);
    EXPECT_EQ(tarn::event_set(event.get()), tarn::event_ok) << "signals do not add up";
    EXPECT_EQ(tarn::event_wait(event.get()), tarn::event_ok);
    EXPECT_EQ(tarn::event_timedwait(event.get(), 0), second);
    EXPECT_EQ(tarn::event_set(event.get()), tarn::event_ok);
    EXPECT_EQ(tarn::event_reset(event.get()), tarn::event_ok);
    EXPECT_EQ(tarn::event_timedwait(event.get(), 0), tarn::event_timeout);
  }
}

TEST(EventTest, TimesOutNotBeforeItsLimit) {
  const Event event = Make(false, false);
  // 1500 ms carries into the next second for about half of all starting points, 999 ms for nearly all.
  for (const long ms : {1L, 999L, 1500L}) {
    const auto begin = Clock::now();
    EXPECT_EQ(tarn::event_timedwait(event.get(), ms), tarn::event_timeout);
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(ms - 1)) << ms;
  }
  EXPECT_EQ(tarn::event_timedwait(event.get(), -2), tarn::event_timeout) << "a limit that has passed";
  EXPECT_EQ(tarn::event_timedwait(event.get(), -1500), tarn::event_timeout);
}

TEST(EventTest, WakesOneOfTwoWaitersOrBoth) {
  for (const bool manual : {false, true}) {
    const Event event = Make(manual, false);
    std::atomic<int> woken{0};
    const auto wait = [&] {
      EXPECT_EQ(tarn::event_timedwait(event.get(), -1), tarn::event_ok);
      ++woken;
    };
    std::thread first(wait);
    std::thread second(wait);
    EXPECT_EQ(tarn::event_set(event.get()), tarn::event_ok);
    while (woken == 0) std::this_thread::yield();
    if (!manual) {
      EXPECT_EQ(tarn::event_timedwait(event.get(), 20), tarn::event_timeout);
      EXPECT_EQ(woken, 1);
      EXPECT_EQ(tarn::event_set(event.get()), tarn::event_ok);
    }
    first.join();
    second.join();
  }
}

}  // namespace

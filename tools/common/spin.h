// A wait for something that is likely to happen within microseconds, without sleeping: sleeping and waking cost
// more. The thread yields the processor to other threads meanwhile.
#ifndef GX_COMMON_SPIN_H
#define GX_COMMON_SPIN_H

#include <chrono>
#include <thread>

namespace gxtool {

// On a busy machine a yield gives the processor away for a time slice, and a thread that sleeps gets it back
// sooner. So after a yield of more than kLongYield, Wait returns false at once for kPause. Threads: one.
class Spin {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = Clock::time_point (*)();
  using Yield = void (*)();

  explicit Spin(Now now = &Clock::now, Yield yield = &std::this_thread::yield) : now_(now), yield_(yield) {}

  // True for kPause after a long yield.
  bool pauses() const { return now_() < resume_; }

  // Yields and calls `happened`, again and again, until that returns true or the time is over. Returns whether
  // it returned true.
  template <class Happened>
  bool Wait(Clock::duration time, Happened happened) {
    Clock::time_point now = now_();
    if (now < resume_) return false;
    for (const Clock::time_point end = now + time; now < end;) {
      const Clock::time_point before = now;
      yield_();
      now = now_();
      if (now - before > kLongYield) resume_ = now + kPause;
      if (happened()) return true;
    }
    return false;
  }

 private:
  static constexpr std::chrono::milliseconds kLongYield{1};
  static constexpr std::chrono::milliseconds kPause{100};

  const Now now_;
  const Yield yield_;
  Clock::time_point resume_;
};

}  // namespace gxtool

#endif  // GX_COMMON_SPIN_H

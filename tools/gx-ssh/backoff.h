// How long to wait before the next attempt.
#ifndef GX_SSH_BACKOFF_H
#define GX_SSH_BACKOFF_H

#include <chrono>
#include <random>

namespace gxtool {

// Doubles from attempt to attempt, and varies, so that many programs that lost one host do not come back as
// one.
class Backoff {
 public:
  static constexpr std::chrono::milliseconds kShortest{200};
  static constexpr std::chrono::milliseconds kLongest{30'000};

  // The next pause, and one attempt more.
  std::chrono::milliseconds Next();
  int attempts() const { return attempts_; }
  // After a success.
  void Reset() { attempts_ = 0; }

 private:
  int attempts_ = 0;
  std::minstd_rand random_{std::random_device{}()};
};

}  // namespace gxtool

#endif  // GX_SSH_BACKOFF_H

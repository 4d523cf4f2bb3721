// Decides whether and when a link that is down is started again.
#ifndef GX_SSH_LINK_POLICY_H
#define GX_SSH_LINK_POLICY_H

#include <chrono>
#include <optional>
#include <random>

#include "gx-ssh/failure.h"

namespace gxtool {

// A link that stays up for kStable counts as a success. Failures in a row, including links that break soon
// after they come up, count towards a limit. The pauses between restarts double and have a random part, so that
// many programs that lost one host do not return at the same moment. The caller passes the time.
class LinkPolicy {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kStable{10};  // a link that was up this long is a success
  static constexpr std::chrono::milliseconds kShortest{200};
  static constexpr std::chrono::milliseconds kLongest{30'000};

  // Without `restarts` the first end is final. `limit`: restarts in a row; 0 means no limit.
  LinkPolicy(bool restarts, int limit) : restarts_(restarts), limit_(limit) {}

  void OnUp(Clock::time_point now) { up_since_ = now; }
  // Returns the pause before the next start, or nothing when no restart follows. `why` tells whether a restart
  // could help.
  std::optional<std::chrono::milliseconds> OnDown(ExitStatus why, Clock::time_point now);

 private:
  std::chrono::milliseconds NextPause();

  const bool restarts_;
  const int limit_;
  int restarted_ = 0;  // in a row
  std::optional<Clock::time_point> up_since_;
  std::minstd_rand random_{std::random_device{}()};
};

}  // namespace gxtool

#endif  // GX_SSH_LINK_POLICY_H

// Whether a link that is down is started again, and when.
#ifndef GX_SSH_LINK_POLICY_H
#define GX_SSH_LINK_POLICY_H

#include <chrono>
#include <optional>
#include <random>

#include "gx-ssh/failure.h"

namespace gxtool {

// A link that stays up for a while is a success. Failures in a row, among them links that come up and break at
// once, count against a limit; the pauses between them double and vary, so that many programs that lost one
// host do not come back as one. It is told the time and knows no clock.
class LinkPolicy {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kStable{10};  // up for so long: a success
  static constexpr std::chrono::milliseconds kShortest{200};
  static constexpr std::chrono::milliseconds kLongest{30'000};

  // Without `restarts` the first end is the last. `limit`: so many restarts in a row; 0 is no limit.
  LinkPolicy(bool restarts, int limit) : restarts_(restarts), limit_(limit) {}

  void OnUp(Clock::time_point now) { up_since_ = now; }
  // How long to wait before the next start; nothing: it is over. `why` tells whether another try could help.
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

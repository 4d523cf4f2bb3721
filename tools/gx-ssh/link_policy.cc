#include "gx-ssh/link_policy.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace gxtool {

std::optional<std::chrono::milliseconds> LinkPolicy::OnDown(ExitStatus why, Clock::time_point now) {
  const auto up_since = std::exchange(up_since_, std::nullopt);
  if (up_since && now - *up_since >= kStable) restarted_ = 0;
  const bool may_help = why == kExitLinkLost || why == kExitNotReady;
  if (!restarts_ || !may_help || (limit_ > 0 && restarted_ >= limit_)) return std::nullopt;
  ++restarted_;
  return NextPause();
}

std::chrono::milliseconds LinkPolicy::NextPause() {
  constexpr int kMaxDoublings = 8;  // kShortest, doubled this often, exceeds kLongest
  const auto base = std::min(kShortest * (1 << std::min(restarted_ - 1, kMaxDoublings)), kLongest);
  std::uniform_int_distribution<std::int64_t> pause(std::max(base / 2, kShortest).count(), base.count());
  return std::chrono::milliseconds(pause(random_));
}

}  // namespace gxtool

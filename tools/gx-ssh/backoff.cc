#include "gx-ssh/backoff.h"

#include <algorithm>

namespace gxtool {

std::chrono::milliseconds Backoff::Next() {
  constexpr int kMaxDoublings = 8;  // kShortest, doubled so often, is past kLongest
  const auto base = std::min(kShortest * (1 << std::min(attempts_, kMaxDoublings)), kLongest);
  ++attempts_;
  std::uniform_int_distribution<std::int64_t> pause(std::max(base / 2, kShortest).count(), base.count());
  return std::chrono::milliseconds(pause(random_));
}

}  // namespace gxtool

#include "common/receipts.h"

#include <algorithm>

namespace gxtool {
namespace {

// Where a slow line delivers a frame bit by bit, this much is worth an acknowledgement.
constexpr std::uint64_t kLeastBytes = 512;
// So much is worth one at once: the sender must not run out of what it may send.
constexpr std::uint64_t kManyBytes = Receipts::kRoomBytes / 8;

}  // namespace

void Receipts::Permit(std::uint64_t held) {
  const std::uint64_t end = totals_.received + kRoomBytes;
  totals_.permitted = std::max(totals_.permitted, end - std::min(end, held));
}

std::optional<Receipts::Clock::time_point> Receipts::due() const {
  if (!wanted_) return std::nullopt;
  if (!told_) return Clock::time_point{};
  const std::uint64_t received = totals_.received - told_->received;
  const std::uint64_t permitted = totals_.permitted - told_->permitted;
  if (std::max(received, permitted) >= kManyBytes) return Clock::time_point{};
  if (received == 0 || (!frame_ended_ && received < kLeastBytes)) return std::nullopt;
  return told_at_ + kInterval;
}

Acknowledgement Receipts::Take(Clock::time_point now) {
  told_ = totals_;
  told_at_ = now;
  return totals_;
}

}  // namespace gxtool

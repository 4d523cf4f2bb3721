#include "common/receipts.h"

#include <algorithm>

namespace gxtool {
namespace {

// While a slow line delivers one frame, an acknowledgement is sent after this many bytes.
constexpr std::uint64_t kLeastBytes = 512;
// In a conversation the acknowledgement of fewer bytes waits for outgoing data.
constexpr std::uint64_t kMuchBytes = 4 * 1024;
// After this many bytes an acknowledgement is sent at once, so that the sender does not use up its permission.
constexpr std::uint64_t kManyBytes = Receipts::kRoomBytes / 2;

}  // namespace

void Receipts::OnRead(bool frame_ended, Clock::time_point now) {
  frame_ended_ = frame_ended;
  if (has_news() && !came_at_) came_at_ = now;
}

void Receipts::Permit(std::uint64_t held) {
  const std::uint64_t end = totals_.received + kRoomBytes;
  totals_.permitted = std::max(totals_.permitted, end - std::min(end, held));
}

std::optional<Receipts::Clock::time_point> Receipts::due(Clock::time_point now) const {
  if (!wanted_) return std::nullopt;
  if (!told_) return Clock::time_point{};
  const std::uint64_t received = totals_.received - told_->received;
  const std::uint64_t permitted = totals_.permitted - told_->permitted;
  if (std::max(received, permitted) >= kManyBytes) return Clock::time_point{};
  if (received == 0 || (received < kLeastBytes && !frame_ended_)) return std::nullopt;
  const Clock::time_point soon = told_at_ + kInterval;
  // The end of a transfer's burst must not wait much longer than its begin: the sender would see a queue.
  const bool converses = rode_ && now < soon;
  if (received >= (converses ? kMuchBytes : kLeastBytes)) return soon;
  // After a pause acknowledge at once: the sender measures the round trip of an empty line with it.
  const Clock::time_point came_at = came_at_.value_or(told_at_);
  return came_at - told_at_ < kPatience ? came_at + kPatience : came_at;
}

bool Receipts::rides(Clock::time_point now) const { return has_news() && now >= told_at_ + kInterval / 2; }

Acknowledgement Receipts::Take(Clock::time_point now, bool rides) {
  told_ = totals_;
  told_at_ = now;
  rode_ = rides;
  came_at_.reset();
  return totals_;
}

}  // namespace gxtool

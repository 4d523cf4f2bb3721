// When to acknowledge what has been received.
#ifndef GX_COMMON_RECEIPTS_H
#define GX_COMMON_RECEIPTS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "common/control_frames.h"

namespace gxtool {

// Soon enough for the sender's window, and seldom enough to cost next to nothing: a fast line hears of it every
// kInterval, a slow one behind a frame. What goes the other way takes an acknowledgement along, which then
// costs nothing but its bytes; one of little waits for that, since for a conversation even a timer can be felt.
// Threads: one at a time.
class Receipts {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::uint64_t kRoomBytes = 8 * 1024 * 1024;
  static constexpr std::chrono::milliseconds kInterval{5};
  static constexpr std::chrono::milliseconds kPatience{50};

  // Acknowledgements are wanted, the first one at once.
  void Start() { wanted_ = true; }

  bool wanted() const { return wanted_; }
  // Something has come that is not acknowledged yet.
  bool has_news() const { return told_ && totals_.received > told_->received; }

  // The header, or a piece of the payload, of a frame that is counted.
  void OnReceived(std::size_t bytes) { totals_.received += bytes; }
  // Behind a read: what came does not end inside a frame.
  void OnRead(bool frame_ended, Clock::time_point now);
  // `held`: so much of it waits here, because somebody who shall have it takes nothing.
  void Permit(std::uint64_t held);

  std::uint64_t received() const { return totals_.received; }
  // The sender has gone beyond what it may.
  bool exceeded() const { return totals_.received > totals_.permitted; }

  // When an acknowledgement is due, even if nothing more comes; nothing: none is.
  std::optional<Clock::time_point> due(Clock::time_point now) const;
  // One is worth a place beside something else that goes out now.
  bool rides(Clock::time_point now) const;
  Acknowledgement Take(Clock::time_point now);

 private:
  bool wanted_ = false;
  bool frame_ended_ = true;
  Acknowledgement totals_{0, kRoomBytes};
  std::optional<Acknowledgement> told_;
  Clock::time_point told_at_{};
  std::optional<Clock::time_point> came_at_;  // the first bytes since
};

}  // namespace gxtool

#endif  // GX_COMMON_RECEIPTS_H

// Decides when to acknowledge received bytes.
#ifndef GX_COMMON_RECEIPTS_H
#define GX_COMMON_RECEIPTS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "common/control_frames.h"

namespace gxtool {

// Acknowledges early enough for the sender's window, but rarely enough to cost little: every kInterval on a
// fast line, after a frame on a slow one. An acknowledgement that is sent together with outgoing data costs
// almost nothing. In a conversation it waits for such data, because there even a timer would be noticeable.
// Threads: one at a time.
class Receipts {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::uint64_t kRoomBytes = 8 * 1024 * 1024;
  static constexpr std::chrono::milliseconds kInterval{5};
  static constexpr std::chrono::milliseconds kPatience{50};

  // Acknowledgements are wanted from now on; the first one is due at once.
  void Start() { wanted_ = true; }

  bool wanted() const { return wanted_; }
  // True when received bytes are not yet acknowledged.
  bool has_news() const { return told_ && totals_.received > told_->received; }

  // Counts a frame's header or a piece of its payload.
  void OnReceived(std::size_t bytes) { totals_.received += bytes; }
  // Call after each read. `frame_ended`: the received bytes end between two frames.
  void OnRead(bool frame_ended, Clock::time_point now);
  // Updates the permission: `held` received bytes are waiting here, because their receiver takes no data.
  void Permit(std::uint64_t held);

  std::uint64_t received() const { return totals_.received; }
  // The sender has sent more than it may.
  bool exceeded() const { return totals_.received > totals_.permitted; }

  // When an acknowledgement is due if no more bytes arrive; nothing when it is not.
  std::optional<Clock::time_point> due(Clock::time_point now) const;
  // True when an acknowledgement should be sent together with the data that is sent now.
  bool rides(Clock::time_point now) const;
  // The totals, for an acknowledgement that is sent now; `rides`: together with outgoing data.
  Acknowledgement Take(Clock::time_point now, bool rides = false);

 private:
  bool wanted_ = false;
  bool frame_ended_ = true;
  Acknowledgement totals_{0, kRoomBytes};
  std::optional<Acknowledgement> told_;
  Clock::time_point told_at_{};
  bool rode_ = false;                         // the last one was sent together with outgoing data
  std::optional<Clock::time_point> came_at_;  // arrival of the first unacknowledged bytes
};

}  // namespace gxtool

#endif  // GX_COMMON_RECEIPTS_H

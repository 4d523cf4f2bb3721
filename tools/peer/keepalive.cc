#include "peer/keepalive.h"

#include <utility>

namespace gxtool {

void Keepalive::Start() {
  if (interval_.count() == 0) return;
  OnReceived();
  Arm(last_received_ + interval_);
}

void Keepalive::Arm(Clock::time_point when) {
  timer_.expires_at(when);
  timer_.async_wait([this](asio::error_code error) {
    if (!error) OnTimer();
  });
}

void Keepalive::OnTimer() {
  const Clock::time_point now = Clock::now();
  const auto intervals = (now - last_received_) / interval_;
  if (owner_->IsDeaf()) {
    OnReceived();
    owner_->OnQuiet();
    return Arm(now + interval_);
  }
  if (intervals >= count_) {
    // While this process stood still bytes may have come: the event loop looks at the input before the timer.
    return std::exchange(looks_again_, true) ? owner_->OnSilent() : Arm(now);
  }
  if (intervals >= 1) owner_->OnQuiet();
  Arm(last_received_ + (intervals + 1) * interval_);
}

}  // namespace gxtool

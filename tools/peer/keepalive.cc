#include "peer/keepalive.h"

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
    last_received_ = now;
    owner_->OnQuiet();
    return Arm(now + interval_);
  }
  if (intervals >= count_) return owner_->OnSilent();
  if (intervals >= 1) owner_->OnQuiet();
  Arm(last_received_ + (intervals + 1) * interval_);
}

}  // namespace gxtool

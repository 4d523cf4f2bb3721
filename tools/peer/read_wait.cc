#include "peer/read_wait.h"

#include <sys/socket.h>

#include <algorithm>

namespace gxtool {
namespace {

constexpr int kLostPart = 16;

}  // namespace

void ReadWait::Start(std::size_t got, const std::shared_ptr<Owner>& owner) {
  pending_ = true;
  const Clock::time_point now = Clock::now();
  const bool patient = got >= kMuchBytes && now >= patient_from_;
  SetLowWater(patient ? kBatchBytes : 1);
  WatchSocket(owner);
  end_ = now + kPatience;
  unread_at_half_.reset();
  if (patient) WatchClock(owner);
}

void ReadWait::SetLowWater(std::size_t bytes) {
  if (bytes == low_water_) return;
  low_water_ = bytes;
  const int value = static_cast<int>(bytes);
  setsockopt(socket_.native_handle(), SOL_SOCKET, SO_RCVLOWAT, &value, sizeof value);
}

void ReadWait::WatchSocket(const std::shared_ptr<Owner>& owner) {
  if (socket_watched_) return;
  socket_watched_ = true;
  socket_.async_wait(StreamSocket::wait_read, [this, owner](asio::error_code) {
    socket_watched_ = false;
    Finish(*owner);
  });
}

// The timer is kept when a wait ends early, because the next wait usually starts before it fires.
void ReadWait::WatchClock(const std::shared_ptr<Owner>& owner) {
  if (clock_watched_) return;
  clock_watched_ = true;
  timer_.expires_at(unread_at_half_ ? end_ : end_ - kPatience / 2);
  timer_.async_wait([this, owner](asio::error_code) {
    clock_watched_ = false;
    if (pending_ && low_water_ > 1) OnClock(owner);
  });
}

void ReadWait::OnClock(const std::shared_ptr<Owner>& owner) {
  const Clock::time_point now = Clock::now();
  if (now >= end_) return OnTimeOver(*owner);
  if (!unread_at_half_ && now >= end_ - kPatience / 2) unread_at_half_ = unread();
  WatchClock(owner);
}

void ReadWait::OnTimeOver(Owner& owner) {
  const std::size_t unread = this->unread();
  const bool grew = unread_at_half_ && unread > *unread_at_half_;
  const std::size_t missing = kBatchBytes - (grew ? std::min(unread, kBatchBytes) : 0);
  patient_from_ = Clock::now() + kLostPart * missing * Clock::duration(kPatience) / kBatchBytes;
  Finish(owner);
}

std::size_t ReadWait::unread() const {
  asio::error_code ignored;
  return socket_.available(ignored);
}

void ReadWait::Finish(Owner& owner) {
  if (!pending_) return;
  pending_ = false;
  owner.OnReadReady();
}

}  // namespace gxtool

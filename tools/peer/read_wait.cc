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
  socket_.async_wait(TcpSocket::wait_read, [this, owner](asio::error_code) {
    socket_watched_ = false;
    Finish(*owner);
  });
}

// The clock is not stopped for a wait that is over, since the next one mostly begins before it rings.
void ReadWait::WatchClock(const std::shared_ptr<Owner>& owner) {
  if (clock_watched_) return;
  clock_watched_ = true;
  timer_.expires_at(end_);
  timer_.async_wait([this, owner](asio::error_code) {
    clock_watched_ = false;
    if (!pending_ || low_water_ == 1) return;
    Clock::now() < end_ ? WatchClock(owner) : OnTimeOver(*owner);
  });
}

void ReadWait::OnTimeOver(Owner& owner) {
  asio::error_code ignored;
  const std::size_t missing = kBatchBytes - std::min(socket_.available(ignored), kBatchBytes);
  patient_from_ = Clock::now() + kLostPart * missing * Clock::duration(kPatience) / kBatchBytes;
  Finish(owner);
}

void ReadWait::Finish(Owner& owner) {
  if (!pending_) return;
  pending_ = false;
  owner.OnReadReady();
}

}  // namespace gxtool

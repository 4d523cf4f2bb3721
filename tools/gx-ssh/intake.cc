#include "gx-ssh/intake.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "common/control_frames.h"

namespace gxtool {
namespace {

// How often the thread checks, while bytes arrive, for a reader that has stopped reading, and for an
// acknowledgement that is due. A shorter timer would be noticeable in interactive traffic.
constexpr std::chrono::milliseconds kLookInterval{50};
// An acknowledgement that is due later than this is left to the thread, which may send it kLookInterval too
// late: setting a timer for each message of a conversation would be noticeable, too.
constexpr std::chrono::milliseconds kShortWait = Receipts::kInterval;
constexpr std::size_t kHoldBytes = 256 * 1024;  // per read
// A far side that respects its permission reaches half of this; one that exceeds this is not read.
constexpr std::size_t kMostHeldBytes = 2 * Receipts::kRoomBytes;

std::int64_t Milliseconds(Intake::Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

// The timeout for poll.
int MillisecondsUntil(std::optional<Intake::Clock::time_point> time) {
  if (!time) return -1;
  const auto left = std::max(*time - Intake::Clock::now(), Intake::Clock::duration::zero());
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

}  // namespace

bool Intake::IsUrgent(gxmod::ConnectionType type) {
  return type == kPingFrame || type == kPongFrame || type == kAcknowledgementFrame;
}

Intake::Intake(int fd, const StopSignal& stop, Handler& handler, std::string_view received, bool acknowledges)
    : fd_(fd), stop_(stop), handler_(handler), acknowledges_(acknowledges), held_(received) {
  if (!acknowledges_) return;
  receipts_.Start();
  wake_ = MakePipe();
  SetNonBlocking(wake_.read.get(), true);
  SetNonBlocking(wake_.write.get(), true);
  thread_ = std::thread([this] { Watch(); });
}

Intake::~Intake() { Close(); }

void Intake::Close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  changed_.notify_all();
  [[maybe_unused]] const ssize_t written = wake_.write ? write(wake_.write.get(), "", 1) : 0;
  if (thread_.joinable()) thread_.join();
}

void Intake::Enter() {
  if (acknowledges_) {
    inside_ = true;
    if (holding_) [[maybe_unused]]
      const ssize_t written = write(wake_.write.get(), "", 1);
    turn_mutex_.lock();
  }
  if (std::exchange(begun_, true)) return;
  Came(held_);
  Acknowledge();
}

void Intake::Leave() {
  if (!acknowledges_) return;
  turn_mutex_.unlock();
  ++turns_;
  inside_ = false;
  if (!armed_) Arm();
}

ssize_t Intake::Read(std::span<iovec> parts) {
  std::size_t got = 0;
  if (!holds()) {
    const ssize_t received = readv(fd_, parts.data(), static_cast<int>(parts.size()));
    if (received <= 0) return received;
    quiet_since_ms_ = 0;
    for (std::size_t left = static_cast<std::size_t>(received); const iovec& part : parts) {
      const std::size_t step = std::min(left, part.iov_len);
      Came({static_cast<const char*>(part.iov_base), step});
      left -= step;
    }
    got = static_cast<std::size_t>(received);
  } else {
    for (const iovec& part : parts) {
      const std::size_t step = held_.copy(static_cast<char*>(part.iov_base), part.iov_len, held_at_);
      held_at_ += step;
      got += step;
    }
    if (!holds()) {
      held_ = {};
      held_at_ = 0;
    }
  }
  Acknowledge();
  return static_cast<ssize_t>(got);
}

void Intake::BeginToWait(Clock::time_point now) {
  if (quiet_since_ms_ == 0) quiet_since_ms_ = Milliseconds(now);
  waiting_since_ms_ = quiet_since_ms_;
}

void Intake::Sleep(int wake) {
  const Clock::time_point now = Clock::now();
  std::optional<Clock::time_point> due = acknowledges_ ? TellReceipts(now) : std::nullopt;
  if (due && *due - now > kShortWait) {
    if (!armed_) Arm();
    due.reset();
  }
  stop_.WaitFor(fd_, POLLIN, wake, MillisecondsUntil(due));
}

void Intake::OnSending() {
  const std::lock_guard lock(receipts_mutex_);
  if (!receipts_.has_news()) return;
  const Clock::time_point now = Clock::now();
  if (receipts_.rides(now)) handler_.OnAcknowledge(receipts_.Take(now, true), true);
}

std::chrono::milliseconds Intake::silence() const {
  const std::int64_t since = waiting_since_ms_;
  return std::chrono::milliseconds(since == 0 ? 0 : Milliseconds(Clock::now()) - since);
}

void Intake::OnFrame(const gxmod::FrameHeader& header) {
  frame_ = header;
  urgent_.clear();
  if (!IsControlFrame(header.type)) counted_ += gxmod::kFrameHeaderBytes;
}

void Intake::OnPayload(std::string_view piece) {
  if (!IsControlFrame(frame_.type)) counted_ += piece.size();
  if (IsUrgent(frame_.type)) urgent_ += piece.substr(0, kUrgentPayloadBytes - urgent_.size());
}

void Intake::OnFrameEnd() {
  if (IsUrgent(frame_.type)) handler_.OnUrgent(frame_, urgent_);
}

// Call within the reader's or the thread's turn. Returns when the next acknowledgement will be due.
std::optional<Intake::Clock::time_point> Intake::Acknowledge() {
  if (!acknowledges_) return std::nullopt;
  const Clock::time_point now = Clock::now();
  {
    const std::lock_guard lock(receipts_mutex_);
    receipts_.OnReceived(std::exchange(counted_, 0));
    receipts_.OnRead(scanner_.AtFrameEnd(), now);
    receipts_.Permit(held_.size() - held_at_);
  }
  return TellReceipts(now);
}

std::optional<Intake::Clock::time_point> Intake::TellReceipts(Clock::time_point now) {
  const std::lock_guard lock(receipts_mutex_);
  const auto due = receipts_.due(now);
  if (!due || *due > now) return due;
  handler_.OnAcknowledge(receipts_.Take(now, false), false);
  return std::nullopt;
}

void Intake::Arm() {
  {
    const std::lock_guard lock(mutex_);
    armed_ = true;
  }
  changed_.notify_all();
}

void Intake::Watch() {
  Lock lock(mutex_);
  while (!closed_) {
    changed_.wait(lock, [this] { return closed_ || armed_; });
    const std::uint64_t seen = turns_;
    changed_.wait_for(lock, kLookInterval, [this] { return closed_; });
    if (closed_) return;
    lock.unlock();
    Look(seen);
    lock.lock();
  }
}

void Intake::Look(std::uint64_t turns_before) {
  if (turns_ != turns_before) return;
  if (!inside_) {
    Hold();
  } else {
    // The reader waits. It arms the thread again when it leaves, and when it leaves an acknowledgement to the
    // thread. It may have done either just before this: then the thread stays armed.
    armed_ = false;
    const bool acknowledges_later = TellReceipts(Clock::now()).has_value();
    if (acknowledges_later || !inside_) armed_ = true;
  }
}

void Intake::Hold() {
  holding_ = true;
  bool may_read = true;
  while (!inside_ && !stop_.raised()) {
    std::optional<Clock::time_point> due;
    {
      const Lock turn(turn_mutex_, std::try_to_lock);
      if (!turn || inside_) break;
      may_read = may_read && ReadToHold();
      due = Acknowledge();
      if (may_read) BeginToWait(Clock::now());
    }
    pollfd waits[] = {{stop_.fd(), POLLIN, 0}, {wake_.read.get(), POLLIN, 0}, {may_read ? fd_ : -1, POLLIN, 0}};
    poll(waits, std::size(waits), MillisecondsUntil(due));
    EndToWait();
  }
  holding_ = false;
  char bytes[64];
  while (read(wake_.read.get(), bytes, sizeof bytes) > 0) {
  }
}

// Reads all available bytes. Returns false when reading is over or the limit is reached.
bool Intake::ReadToHold() {
  if (held_at_ > 0) held_.erase(0, std::exchange(held_at_, 0));
  while (held_.size() <= kMostHeldBytes) {
    const std::size_t before = held_.size();
    held_.resize(before + kHoldBytes);
    const ssize_t got = read(fd_, held_.data() + before, kHoldBytes);
    const int error = errno;
    held_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0) return error == EAGAIN || error == EINTR;
    if (got == 0) return false;
    quiet_since_ms_ = 0;
    Came(std::string_view(held_).substr(before));
  }
  return false;
}

}  // namespace gxtool

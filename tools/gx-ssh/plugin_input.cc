#include "gx-ssh/plugin_input.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/pieces.h"

namespace gxtool {
namespace {

using Clock = std::chrono::steady_clock;

// Interactive traffic, unlike a transfer, has messages of at most this size ...
constexpr std::size_t kLittleBytes = 1024;
// ... and a reply arrives within this time when both ends are near. During a transfer in the other direction
// replies are slower; spinning for those as well would slow down both.
constexpr std::chrono::microseconds kSoon{150};
constexpr std::chrono::microseconds kSoonBesideTransfer{100};
// The time to spin; waking a sleeping thread takes about as long.
constexpr std::chrono::microseconds kAwake{100};
// Fast replies in a row that start the spinning. From kCertain one late reply does not end it, two in a row do.
constexpr int kLikely = 4;
constexpr int kCertain = 2 * kLikely;

}  // namespace

PluginInput::PluginInput(int fd, const StopSignal& stop, Handler& handler, std::string_view received,
                         bool acknowledges, bool takes_inserts)
    : fd_(fd),
      stop_(stop),
      handler_(handler),
      intake_(fd, stop, handler, received, acknowledges),
      buffer_(new char[kBufferBytes]) {
  if (takes_inserts) wake_ = MakePipe();
}

std::size_t PluginInput::Read(void* data, std::size_t length) {
  const Intake::Turn turn(intake_);
  return ReadInTurn(data, length);
}

std::size_t PluginInput::ReadInTurn(void* data, std::size_t length) {
  while (passing_ == 0) {
    if (!NextFrame()) return 0;
  }
  std::size_t got = static_cast<std::size_t>(std::min<std::uint64_t>(length, passing_));
  if (buffered() == 0) {
    // One system call reads the rest of this frame into the module's memory and the following bytes into the
    // buffer.
    iovec parts[] = {{data, got}, {buffer_.get(), kBufferBytes}};
    const std::size_t received = Receive(parts);
    begin_ = 0;
    end_ = received - std::min(received, got);
    got = std::min(received, got);
  } else {
    got = std::min(got, buffered());
    std::memcpy(data, buffer_.get() + begin_, got);
    begin_ += got;
  }
  passing_ -= got;
  return got;
}

void PluginInput::InsertClose(std::uint32_t connection) {
  const std::lock_guard lock(insert_mutex_);
  inserted_.push_back(connection);
  if (has_inserted_.exchange(true)) return;
  [[maybe_unused]] const ssize_t written = write(wake_.write.get(), "", 1);
}

void PluginInput::OnSending(std::size_t length) {
  sends_little_.store(length <= kLittleBytes, std::memory_order_relaxed);
  intake_.OnSending();
}

bool PluginInput::NextFrame() {
  if (has_inserted_) TakeInserted();
  between_frames_ = true;
  const bool has_header = Buffer(gxmod::kFrameHeaderBytes);
  between_frames_ = false;
  if (!has_header) return end_reason_.empty();  // otherwise a Close was inserted
  const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(buffer_.get() + begin_);
  if (handler_.Passes(header)) {
    passing_ = gxmod::kFrameHeaderBytes + std::uint64_t{header.length};
    return true;
  }
  begin_ += gxmod::kFrameHeaderBytes;
  const std::size_t kept = std::min<std::size_t>(header.length, kTakenPayloadBytes);
  if (!Buffer(kept)) return false;
  if (!Intake::IsUrgent(header.type)) handler_.OnTaken(header, {buffer_.get() + begin_, kept});
  return Skip(header.length);
}

// Places the inserted frames before the buffered bytes. These start with a whole frame, so no frame is cut.
void PluginInput::TakeInserted() {
  const std::lock_guard lock(insert_mutex_);
  const std::size_t room = (kBufferBytes - buffered()) / gxmod::kFrameHeaderBytes;
  const std::size_t taken = std::min(room, inserted_.size());
  char* const front = buffer_.get();
  std::memmove(front + taken * gxmod::kFrameHeaderBytes, front + begin_, buffered());
  end_ = taken * gxmod::kFrameHeaderBytes + buffered();
  begin_ = 0;
  for (std::size_t i = 0; i < taken; ++i) {
    gxmod::EncodeFrameHeader({0, inserted_[i], gxmod::ConnectionType::Close},
                             front + i * gxmod::kFrameHeaderBytes);
  }
  inserted_.erase(inserted_.begin(), inserted_.begin() + static_cast<std::ptrdiff_t>(taken));
  if (!inserted_.empty()) return;
  char byte = 0;
  [[maybe_unused]] const ssize_t got = read(wake_.read.get(), &byte, 1);
  has_inserted_ = false;
}

bool PluginInput::Buffer(std::size_t bytes) {
  if (buffered() >= bytes) return true;
  std::memmove(buffer_.get(), buffer_.get() + begin_, buffered());
  end_ = buffered();
  begin_ = 0;
  while (end_ < bytes) {
    iovec part[] = {{buffer_.get() + end_, kBufferBytes - end_}};
    const std::size_t received = Receive(part);
    if (received == 0) return false;
    end_ += received;
  }
  return true;
}

bool PluginInput::Skip(std::uint64_t bytes) {
  while (bytes > 0) {
    if (!Buffer(1)) return false;
    const std::size_t step = static_cast<std::size_t>(std::min<std::uint64_t>(bytes, buffered()));
    begin_ += step;
    bytes -= step;
  }
  return true;
}

std::size_t PluginInput::Receive(std::span<iovec> parts) {
  while (!stop_.raised()) {
    if (between_frames_ && has_inserted_) return 0;
    if (drained_ && !intake_.holds()) Wait();
    const ssize_t received = intake_.Read(parts);
    // A read that did not fill its space has emptied the descriptor, so the next call would find nothing.
    drained_ = received < 0 ? errno == EAGAIN : static_cast<std::size_t>(received) < TotalBytes(parts);
    if (received > static_cast<ssize_t>(kLittleBytes)) conversation_ = 0;
    if (received > 0) return static_cast<std::size_t>(received);
    if (received == 0) {
      end_reason_ = "end of the stream";
      return 0;
    }
    if (errno != EAGAIN && errno != EINTR) {
      end_reason_ = std::strerror(errno);
      return 0;
    }
  }
  end_reason_ = "closed";
  return 0;
}

void PluginInput::Wait() {
  const Clock::time_point begin = Clock::now();
  intake_.BeginToWait(begin);
  if (conversation_ < kLikely || !ComesSoon()) {
    intake_.Sleep(between_frames_ ? wake_.read.get() : -1);
  }
  intake_.EndToWait();
  const auto soon = sends_little_ ? kSoon : kSoonBesideTransfer;
  conversation_ = Clock::now() - begin < soon ? std::min(conversation_ + 1, kCertain) : conversation_ / 2;
}

bool PluginInput::ComesSoon() {
  const auto is_here = [this] {
    pollfd wait{fd_, POLLIN, 0};
    return stop_.raised() || poll(&wait, 1, 0) != 0;
  };
  return is_here() || spin_.Wait(kAwake, is_here);
}

}  // namespace gxtool

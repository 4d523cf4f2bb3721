#include "peer/frame_output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "link/control_frames.h"
#include "link/local_socket.h"

namespace gxtool {
namespace {

// Two full frames to a half: one can be written while the next is read.
constexpr std::size_t kHalfBytes = 2 * (gxmod::kFrameHeaderBytes + kDataBytes);
// What lies unread is what a keystroke's echo waits behind.
constexpr int kUnreadBytes = 128 * 1024;
constexpr int kInteractiveUnreadBytes = 32 * 1024;
constexpr std::size_t kInteractiveFrameBytes = 32 * 1024;
// Less is not worth a call to the target.
constexpr std::size_t kLeastRoom = 4 * 1024;

}  // namespace

FrameOutput::FrameOutput(asio::io_context& io, int fd, Owner* owner) : io_(io), fd_(io, fd), owner_(owner) {
  for (Half* half : {&writing_, &filling_}) half->data = std::make_unique_for_overwrite<char[]>(kHalfBytes);
  SetUnreadBytes(fd, kUnreadBytes);
}

std::span<char> FrameOutput::Room() {
  const std::size_t taken = filling_.end + gxmod::kFrameHeaderBytes;
  if (broken_ || !overflow_.empty() || taken + kLeastRoom > kHalfBytes) return {};
  return {filling_.data.get() + taken, std::min(kDataBytes, kHalfBytes - taken)};
}

std::span<char> FrameOutput::BulkRoom() {
  if (!interactive_) return Room();
  if (!idle()) return {};
  const std::span<char> room = Room();
  return room.first(std::min(room.size(), kInteractiveFrameBytes));
}

void FrameOutput::SetInteractive(bool on) {
  if (on == interactive_) return;
  interactive_ = on;
  SetUnreadBytes(fd_.native_handle(), on ? kInteractiveUnreadBytes : kUnreadBytes);
}

void FrameOutput::AddData(std::uint32_t connection_id, std::size_t count) {
  gxmod::EncodeFrameHeader({static_cast<std::uint32_t>(count), connection_id, gxmod::ConnectionType::Data},
                           filling_.data.get() + filling_.end);
  filling_.end += gxmod::kFrameHeaderBytes + count;
  ScheduleFlush();
}

void FrameOutput::AddControl(gxmod::ConnectionType type, std::uint32_t connection_id,
                             std::string_view payload) {
  AddText(MakeFrame(type, connection_id, payload));
}

void FrameOutput::AddText(std::string_view text) {
  if (broken_) return;
  if (overflow_.empty() && text.size() <= kHalfBytes - filling_.end) {
    std::memcpy(filling_.data.get() + filling_.end, text.data(), text.size());
    filling_.end += text.size();
  } else {
    overflow_ += text;
  }
  ScheduleFlush();
}

// Deferred, so that all that becomes readable in one pass of the event loop leaves in one write.
void FrameOutput::ScheduleFlush() {
  if (flush_pending_) return;
  flush_pending_ = true;
  asio::post(io_, [this] { Flush(); });
}

// What fails here fails again in Flush, which is under way.
void FrameOutput::Hurry() {
  if (!broken_ && writing_.unwritten() == 0 && Refill()) WriteSome();
}

void FrameOutput::Flush() {
  flush_pending_ = false;
  while (writing_.unwritten() != 0 || Refill()) {
    if (WriteSome() >= 0) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      WaitWritable();
      break;
    } else if (errno != EINTR) {
      return Break();
    }
  }
  owner_->OnOutputProgress();
}

ssize_t FrameOutput::WriteSome() {
  const ssize_t count =
      ::write(fd_.native_handle(), writing_.data.get() + writing_.begin, writing_.unwritten());
  if (count > 0) writing_.begin += static_cast<std::size_t>(count);
  return count;
}

// The half that was filled becomes the one to write. False: there is nothing.
bool FrameOutput::Refill() {
  std::swap(writing_, filling_);
  filling_.begin = filling_.end = 0;
  const std::size_t moved = std::min(overflow_.size(), kHalfBytes);
  std::memcpy(filling_.data.get(), overflow_.data(), moved);
  filling_.end = moved;
  overflow_.erase(0, moved);
  if (overflow_.empty()) overflow_.shrink_to_fit();
  return writing_.unwritten() != 0 || (moved != 0 && Refill());
}

void FrameOutput::WaitWritable() {
  flush_pending_ = true;
  fd_.async_wait(Descriptor::wait_write, [this](asio::error_code error) {
    if (error == asio::error::operation_aborted) return;
    error ? Break() : Flush();
  });
}

void FrameOutput::Break() {
  broken_ = true;
  writing_.begin = writing_.end = filling_.begin = filling_.end = 0;
  overflow_.clear();
  owner_->OnOutputBroken();
}

}  // namespace gxtool

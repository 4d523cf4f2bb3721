#include "peer/frame_output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/local_socket.h"

namespace gxtool {
namespace {

constexpr std::size_t kBufferBytes = 4 * (gxmod::kFrameHeaderBytes + kDataBytes);
// The limit of unread bytes in the socket, which bounds the delay of a keystroke's echo. With a smaller one,
// the next buffer of frames could not be sent before most of this one is read.
constexpr int kUnreadBytes = 256 * 1024;
constexpr int kInteractiveUnreadBytes = 32 * 1024;
constexpr std::size_t kInteractiveFrameBytes = 32 * 1024;
// For less space a read from the target is not worth a system call.
constexpr std::size_t kLeastRoom = 4 * 1024;

}  // namespace

FrameOutput::FrameOutput(asio::io_context& io, int fd, Owner* owner)
    : io_(io), fd_(io, fd), owner_(owner), buffer_(std::make_unique_for_overwrite<char[]>(kBufferBytes)) {
  SetUnreadBytes(fd, kUnreadBytes);
}

std::span<char> FrameOutput::Room() {
  const std::size_t taken = end_ + gxmod::kFrameHeaderBytes;
  if (broken_ || !overflow_.empty() || taken + kLeastRoom > kBufferBytes) return {};
  // A connection with little data may go one frame further.
  if (pace_.Room(pace_.FrameBytes()) < pace_.FrameBytes()) return {};
  return {buffer_.get() + taken, std::min({kDataBytes, pace_.DataBytes(), kBufferBytes - taken})};
}

std::span<char> FrameOutput::BulkRoom() {
  if (blocked_ || !pace_.HasRoomFor(pace_.FrameBytes())) return {};
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
                           buffer_.get() + end_);
  end_ += gxmod::kFrameHeaderBytes + count;
  pace_.OnSent(gxmod::kFrameHeaderBytes + count);
}

void FrameOutput::AddControl(gxmod::ConnectionType type, std::uint32_t connection_id,
                             std::string_view payload) {
  if (!IsControlFrame(type)) pace_.OnSent(gxmod::kFrameHeaderBytes + payload.size());
  AddText(MakeFrame(type, connection_id, payload));
}

void FrameOutput::Acknowledge(const Acknowledgement& totals) {
  if (blocked_) {
    acknowledgement_ = totals;
  } else {
    AddText(MakeAcknowledgement(totals));
  }
}

void FrameOutput::AddText(std::string_view text) {
  if (broken_) return;
  if (overflow_.empty() && text.size() <= kBufferBytes - end_) {
    std::memcpy(buffer_.get() + end_, text.data(), text.size());
    end_ += text.size();
  } else {
    overflow_ += text;
  }
  FlushSoon();
}

void FrameOutput::FlushSoon() {
  if (flush_pending_) return;
  flush_pending_ = true;
  asio::post(io_, [this] { Flush(); });
}

// An error is ignored here: Flush meets it again.
void FrameOutput::FlushNow() {
  if (!broken_ && !blocked_ && !idle()) WriteSome();
  if (!idle()) FlushSoon();
}

void FrameOutput::Flush() {
  blocked_ = false;
  if (const auto totals = std::exchange(acknowledgement_, std::nullopt)) Acknowledge(*totals);
  flush_pending_ = false;
  while (!idle()) {
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
  const ssize_t count = ::write(fd_.native_handle(), buffer_.get() + begin_, end_ - begin_);
  if (count > 0) begin_ += static_cast<std::size_t>(count);
  if (begin_ == end_) Refill();
  return count;
}

void FrameOutput::Refill() {
  begin_ = 0;
  end_ = overflow_.copy(buffer_.get(), kBufferBytes);
  overflow_.erase(0, end_);
  if (overflow_.empty()) overflow_.shrink_to_fit();
}

void FrameOutput::WaitWritable() {
  flush_pending_ = blocked_ = true;
  fd_.async_wait(StreamDescriptor::wait_write, [this](asio::error_code error) {
    if (error == asio::error::operation_aborted) return;
    error ? Break() : Flush();
  });
}

void FrameOutput::Break() {
  broken_ = true;
  begin_ = end_ = 0;
  overflow_.clear();
  owner_->OnOutputBroken();
}

}  // namespace gxtool

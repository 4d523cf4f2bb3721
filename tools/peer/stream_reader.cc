#include "peer/stream_reader.h"

namespace gxtool {
namespace {

constexpr std::size_t kReadBytes = 256 * 1024;

}  // namespace

StreamReader::StreamReader(asio::io_context& io, int fd, Owner* owner)
    : end_(io, fd), owner_(owner), buffer_(std::make_unique_for_overwrite<char[]>(kReadBytes)) {}

void StreamReader::Read() {
  if (reading_ || paused_ || stopped_) return;
  reading_ = true;
  const auto done = [this](asio::error_code error, std::size_t count) {
    reading_ = false;
    if (stopped_) return;
    if (error && error != asio::error::operation_aborted) return owner_->OnEnd();
    if (!error) owner_->OnBytes({buffer_.get(), count});
    Read();
  };
  end_.async_read_some(asio::buffer(buffer_.get(), kReadBytes), done);
}

void StreamReader::Pause() {
  if (paused_) return;
  paused_ = true;
  WatchHangUp();
}

// Detects that the writer is gone, which otherwise only a read would show.
void StreamReader::WatchHangUp() {
  if (watching_) return;
  watching_ = true;
  const auto done = [this](asio::error_code error) {
    watching_ = false;
    if (stopped_) return;
    if (!paused_) return;
    if (!error) return owner_->OnEnd();
    if (error == asio::error::operation_aborted) WatchHangUp();
  };
  end_.async_wait(StreamDescriptor::wait_error, done);
}

void StreamReader::Resume() {
  if (!paused_) return;
  paused_ = false;
  // Asio's early reads are disabled while a wait for errors is pending.
  asio::error_code ignored;
  if (watching_) end_.cancel(ignored);
  Read();
}

void StreamReader::Stop() {
  stopped_ = true;
  asio::error_code ignored;
  end_.cancel(ignored);
}

}  // namespace gxtool

#include "peer/stream_reader.h"

#include <sys/stat.h>

namespace gxtool {
namespace {

constexpr std::size_t kReadBytes = 256 * 1024;

// After a short read Asio knows that a socket is empty, and saves a call per wake-up. It knows this only for
// sockets.
std::variant<StreamDescriptor, StreamSocket> Open(asio::io_context& io, int fd) {
  struct stat status {};
  if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) {
    return StreamSocket(io, asio::generic::stream_protocol(AF_UNSPEC, 0), fd);
  }
  return StreamDescriptor(io, fd);
}

}  // namespace

StreamReader::StreamReader(asio::io_context& io, int fd, Owner* owner)
    : end_(Open(io, fd)), owner_(owner), buffer_(std::make_unique_for_overwrite<char[]>(kReadBytes)) {}

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
  std::visit([&](auto& end) { end.async_read_some(asio::buffer(buffer_.get(), kReadBytes), done); }, end_);
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
  std::visit([&](auto& end) { end.async_wait(end.wait_error, done); }, end_);
}

void StreamReader::Resume() {
  if (!paused_) return;
  paused_ = false;
  // Asio's early reads are disabled while a wait for errors is pending.
  asio::error_code ignored;
  if (watching_) std::visit([&](auto& end) { end.cancel(ignored); }, end_);
  Read();
}

void StreamReader::Stop() {
  stopped_ = true;
  asio::error_code ignored;
  std::visit([&](auto& end) { end.cancel(ignored); }, end_);
}

}  // namespace gxtool

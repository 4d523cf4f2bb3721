#include "sock/read_ahead.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace {

// With the 4,096 bytes that are asked for: as much as one stream may read before others have their turn.
constexpr std::size_t kAheadBytes = 60 * 1024;

}  // namespace

ssize_t CReadAhead::Receive(int socket, char* data, std::size_t length, int flags) {
  const bool peek = (flags & MSG_PEEK) != 0;
  // What is kept is enough, or all that there was; a peek makes do with it.
  if (!empty() && (kept_ >= length || emptied_ || peek)) {
    return static_cast<ssize_t>(Take(data, length, peek));
  }
  if (error_ != 0) {
    errno = std::exchange(error_, 0);
    return -1;
  }
  if (filled_ && !peek) return ReceiveAhead(socket, data, length);
  const ssize_t got = recv(socket, data, length, flags);
  emptied_ = got < static_cast<ssize_t>(length);
  filled_ = !emptied_;
  return got;
}

void CReadAhead::Clear() {
  const int error = errno;  // the caller's, and not every system's `delete` leaves it alone
  begin_ = kept_ = 0;
  buffer_.reset();
  errno = error;
}

ssize_t CReadAhead::ReceiveAhead(int socket, char* data, std::size_t length) {
  const std::size_t had = Take(data, length, false);
  if (!buffer_) buffer_.reset(new (std::nothrow) char[kAheadBytes]);
  const std::size_t room = buffer_ ? kAheadBytes : 0;
  iovec parts[] = {{data + had, length - had}, {buffer_.get(), room}};
  const ssize_t got = readv(socket, parts, 2);
  if (got < 0 && errno != EAGAIN && had != 0) error_ = errno;  // the socket has told it for the last time
  const std::size_t bytes = had + (got > 0 ? static_cast<std::size_t>(got) : 0);
  emptied_ = bytes < length + room;
  filled_ = bytes >= length;
  begin_ = 0;
  kept_ = bytes - std::min(bytes, length);
  if (empty()) Clear();
  return bytes == 0 ? got : static_cast<ssize_t>(bytes - kept_);
}

std::size_t CReadAhead::Take(char* data, std::size_t length, bool peek) {
  const std::size_t taken = std::min(length, kept_);
  std::copy_n(buffer_.get() + begin_, taken, data);
  if (peek) return taken;
  begin_ += taken;
  kept_ -= taken;
  if (drained()) Clear();  // otherwise the memory is needed again at once
  return taken;
}

#include "peer/connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "common/high_descriptors.h"
#include "common/pieces.h"

namespace gxtool {
namespace {

#ifdef MSG_NOSIGNAL
constexpr int kSendFlags = MSG_NOSIGNAL | MSG_DONTWAIT;
#else
constexpr int kSendFlags = MSG_DONTWAIT;
#endif

constexpr std::size_t kSendPieces = 64;    // per sendmsg
constexpr std::size_t kSmallBytes = 1024;  // at most a keystroke's echo, a request, a line
constexpr std::chrono::milliseconds kFullQueuePause{10};
constexpr int kWritesInARow = 16;                 // before other connections get their turn
constexpr std::size_t kDiscardBytes = 16 * 1024;  // per read of discarded data

asio::error_code LastError() { return {errno, asio::error::get_system_category()}; }

bool WouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

Connection::Connection(asio::io_context& io, std::uint32_t id, std::string name, Owner* owner)
    : id_(id), name_(std::move(name)), owner_(owner), socket_(io), read_wait_(io, socket_) {}

void Connection::Open(std::vector<StreamEndpoint> endpoints) {
  endpoints_ = std::move(endpoints);
  TryNext(asio::error::host_not_found);
}

// Opens the socket close-on-exec: Asio's own sockets would be inherited by child processes.
asio::error_code Connection::OpenSocket(const StreamEndpoint& endpoint) {
  asio::error_code ignored;
  socket_.close(ignored);
#ifdef SOCK_CLOEXEC
  const int fd = MoveUp(::socket(endpoint.protocol().family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
#else
  const int fd = ::socket(endpoint.protocol().family(), SOCK_STREAM, 0);
  if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
#endif
  if (fd < 0) return LastError();
#ifdef SO_NOSIGPIPE
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  asio::error_code error;
  socket_.assign(endpoint.protocol(), fd, error);
  return error;
}

void Connection::TryNext(asio::error_code last) {
  if (next_endpoint_ == endpoints_.size()) {
    if (state_ == State::kClosing) return Leave();
    Abort();
    return owner_->OnOpenFailed(*this, last);
  }
  const StreamEndpoint endpoint = endpoints_[next_endpoint_++];
  if (const asio::error_code error = OpenSocket(endpoint)) return TryNext(error);
  tried_at_ = Clock::now();
  if (endpoint.protocol().family() == AF_UNIX) return ConnectUnix(endpoint);
  socket_.async_connect(endpoint, [self = shared_from_this()](asio::error_code error) {
    if (self->state_ == State::kGone) return;
    if (error) return self->TryNext(error);
    self->ForgetWritability();
    self->OnConnected();
  });
}

// Connecting leaves the socket registered for writability: each wait for bytes would wake up at once because
// the socket is writable. A full socket is registered again; that happens in transfers, where it costs little.
void Connection::ForgetWritability() {
  asio::error_code error;
  const int fd = socket_.release(error);
  if (!error) socket_.assign(endpoints_[next_endpoint_ - 1].protocol(), fd, error);
  if (error) ::close(fd);
}

// A Unix socket answers connect at once. EAGAIN means that the listener's backlog is full, and the system does
// not report when it has room again.
void Connection::ConnectUnix(const StreamEndpoint& endpoint) {
  asio::error_code ignored;
  socket_.native_non_blocking(true, ignored);
  if (::connect(socket_.native_handle(), endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0) {
    return OnConnected();
  }
  if (errno != EAGAIN) return TryNext(LastError());
  const auto pause = std::make_shared<Timer>(socket_.get_executor(), kFullQueuePause);
  pause->async_wait([self = shared_from_this(), endpoint, pause](asio::error_code) {
    if (self->state_ != State::kGone) self->ConnectUnix(endpoint);
  });
}

void Connection::Hurry(Clock::duration time) {
  if (connected_ || next_endpoint_ == endpoints_.size()) return;
  const auto share = time / static_cast<Clock::duration::rep>(endpoints_.size());
  asio::error_code ignored;
  if (Clock::now() - tried_at_ >= share) socket_.cancel(ignored);
}

void Connection::OnConnected() {
  connected_ = true;
  asio::error_code ignored;
  socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
  last_move_ = last_taken_ = Clock::now();
  if (state_ == State::kOpening) {
    state_ = State::kOpen;
    owner_->OnOpen(*this);
  }
  WriteQueue();
  if (state_ != State::kGone) WaitReadable();
}

void Connection::Gather(std::string_view bytes) {
  if (state_ == State::kGone) return;
  gathered_.push_back({const_cast<char*>(bytes.data()), bytes.size()});
  if (gathered_.size() == kSendPieces) Deliver();
}

void Connection::Deliver() {
  if (gathered_.empty()) return;
  const std::size_t total = TotalBytes(gathered_);
  std::size_t sent = connected_ && queue_.empty() && !write_failed_ ? SendSome(gathered_) : 0;
  const std::size_t before = queue_.size();
  if (sent < total && !write_failed_) {
    if (before == 0) last_taken_ = Clock::now();
    for (const iovec& piece : gathered_) {
      const std::size_t skip = std::min(sent, piece.iov_len);
      sent -= skip;
      queue_.Append({static_cast<const char*>(piece.iov_base) + skip, piece.iov_len - skip});
    }
  }
  gathered_.clear();
  SetQueued(before);
  if (connected_) AfterWrite();
}

// Returns how many bytes the target took: fewer than all when it is busy or fails.
std::size_t Connection::SendSome(std::span<iovec> bytes) {
  std::size_t sent = 0;
  while (!bytes.empty()) {
    const std::span<iovec> part = bytes.first(std::min(bytes.size(), kSendPieces));
    msghdr message{};
    message.msg_iov = part.data();
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(part.size());
    const ssize_t count = ::sendmsg(socket_.native_handle(), &message, kSendFlags);
    if (count < 0) {
      write_failed_ = !WouldBlock();
      break;
    }
    sent += static_cast<std::size_t>(count);
    if (static_cast<std::size_t>(count) < TotalBytes(part)) break;
    bytes = bytes.subspan(part.size());
  }
  sent_ += sent;
  if (sent != 0) last_move_ = last_taken_ = Clock::now();
  return sent;
}

void Connection::WriteQueue() {
  const std::size_t before = queue_.size();
  for (int round = 0; round < kWritesInARow && !queue_.empty() && !write_failed_; ++round) {
    std::array<iovec, kSendPieces> pieces;
    const std::span<iovec> front(pieces.data(), queue_.Front(pieces));
    const std::size_t wanted = TotalBytes(front);
    const std::size_t sent = SendSome(front);
    queue_.Consume(sent);
    if (sent < wanted) break;
  }
  SetQueued(before);
  AfterWrite();
}

void Connection::SetQueued(std::size_t before) {
  // A target that takes no more bytes may still be sending its answer, so only this direction ends.
  if (write_failed_) queue_.Clear();
  if (queue_.size() != before) {
    owner_->OnQueued(*this, static_cast<std::ptrdiff_t>(queue_.size()) - static_cast<std::ptrdiff_t>(before));
  }
}

void Connection::AfterWrite() {
  if (state_ == State::kGone) return;
  if (!queue_.empty()) {
    if (write_waiting_) return;
    write_waiting_ = true;
    socket_.async_wait(StreamSocket::wait_write, [self = shared_from_this()](asio::error_code) {
      self->write_waiting_ = false;
      if (self->state_ != State::kGone) self->WriteQueue();
    });
    return;
  }
  if (state_ == State::kClosing && (target_ended_ || write_failed_)) return Leave();
  if (finish_writing_) {
    finish_writing_ = false;
    asio::error_code ignored;
    socket_.shutdown(StreamSocket::shutdown_send, ignored);
    if (state_ == State::kOpen && !write_failed_) owner_->OnWritten(*this);
  }
}

void Connection::WaitReadable() {
  if (read_wait_.pending()) return;
  read_wait_.Start(std::exchange(unwaited_, 0), std::shared_ptr<ReadWait::Owner>(shared_from_this(), this));
}

void Connection::OnReadReady() {
  if (state_ == State::kOpen) owner_->OnReadable(*this);
  if (state_ == State::kClosing) Discard();
}

std::optional<std::size_t> Connection::Read(std::span<char> out) {
  const ssize_t count = ::recv(socket_.native_handle(), out.data(), out.size(), MSG_DONTWAIT);
  if (count < 0 && WouldBlock()) return 0;
  if (count <= 0) {
    target_ended_ = true;
    read_failed_ = count < 0;
    return std::nullopt;
  }
  received_ += static_cast<std::size_t>(count);
  unwaited_ += static_cast<std::size_t>(count);
  // On a slow line `out` is short; a read that fills it may be part of much more data.
  const bool small = static_cast<std::size_t>(count) <= std::min(kSmallBytes, out.size() - 1);
  small_reads_ = small ? small_reads_ + 1 : 0;
  last_move_ = Clock::now();
  return static_cast<std::size_t>(count);
}

void Connection::FinishWriting() {
  finish_writing_ = true;
  if (connected_) AfterWrite();
}

void Connection::Close() {
  if (state_ == State::kClosing || state_ == State::kGone) return;
  state_ = State::kClosing;
  if (!connected_) {
    // A target that has not answered yet still gets the bytes that were sent before the Close.
    if (queue_.empty()) Leave();
    finish_writing_ = true;
    return;
  }
  FinishWriting();
  if (state_ == State::kClosing && !target_ended_ && !read_wait_.pending()) Discard();
}

// Reads and discards: closing a socket with unread bytes sends a reset, which also discards bytes on their way
// to the target.
void Connection::Discard() {
  std::array<char, kDiscardBytes> nowhere;
  for (int round = 0; round < kWritesInARow; ++round) {
    const auto count = Read(nowhere);
    if (!count) return AfterWrite();
    if (*count < nowhere.size()) break;
  }
  WaitReadable();
}

void Connection::Abort() {
  if (state_ == State::kGone) return;
  state_ = State::kGone;
  query.reset();
  asio::error_code ignored;
  socket_.close(ignored);
  const std::size_t before = queue_.size();
  queue_.Clear();
  gathered_.clear();
  SetQueued(before);
}

void Connection::Leave() {
  Abort();
  owner_->OnGone(*this);
}

}  // namespace gxtool

#include "gx-ssh/plugin_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "link/local_socket.h"

namespace gxtool {
namespace {

// The module hands over what one read of a connection has brought. A read that was filled is followed by the
// next one at once, so what it brought may wait for that for a moment, and both leave in one system call.
constexpr std::size_t kFullBlockBytes = 4096;
constexpr std::size_t kBatchBytes = 48 * 1024;
constexpr std::chrono::microseconds kLinger{50};
// While a flow sends by itself all that it brings, nobody need look after it that often.
constexpr std::chrono::microseconds kLongestLinger{1000};

// What may lie unread. On a fast line much of it saves switches between the two programs. On a slow one the
// descriptor would take no more for many seconds, and to the module that looks like a far side that is stuck.
constexpr int kUnreadBytes = 208 * 1024;
constexpr int kUnreadBytesSlow = 8 * 1024;
constexpr std::uint64_t kFastBytesPerMs = 1000;
constexpr std::chrono::milliseconds kLook{20};

}  // namespace

PluginOutput::PluginOutput(int fd, StopSignal& stop, Handler& handler)
    : fd_(fd), stop_(stop), handler_(handler), flusher_([this] { Flush(); }) {
  SetUnreadBytes(fd_, kUnreadBytesSlow);
}

PluginOutput::~PluginOutput() {
  stop_.Raise();
  Close();
  flusher_.join();
}

bool PluginOutput::Write(const void* data, std::size_t length) {
  const std::string_view block(static_cast<const char*>(data), length);
  begun_.clear();
  scanner_.Feed(block);
  Lock lock(mutex_);
  if (queued() >= kQueueBytes) WaitForRoom(lock);
  if (!Report(lock) || closed() || finished_) return false;
  queue_ += block;
  between_frames_ = scanner_.AtFrameEnd();
  const bool more_to_come = inserts_.empty() && length >= kFullBlockBytes && queued() < kBatchBytes;
  if (between_frames_) queue_ += std::exchange(inserts_, {});
  more_to_come ? Defer() : Send();
  if (!Report(lock)) return false;
  lock.unlock();
  // Only now, so that what the handler inserts in answer comes behind the block.
  for (const gxmod::FrameHeader& header : begun_) handler_.OnFrameSent(header);
  return true;
}

void PluginOutput::Insert(std::string_view frame) {
  Lock lock(mutex_);
  PutBetween(lock, frame);
}

void PluginOutput::Answer(std::string_view frame) {
  Lock lock(mutex_);
  if (queued() + inserts_.size() < kQueueBytes) PutBetween(lock, frame);
}

void PluginOutput::PutBetween(Lock& lock, std::string_view frame) {
  if (closed() || finished_) return;
  (between_frames_ ? queue_ : inserts_) += frame;
  Send();
  Report(lock);
}

bool PluginOutput::Finish(std::string_view frame, std::chrono::milliseconds limit) {
  Lock lock(mutex_);
  if (!closed() && !finished_ && between_frames_) {
    queue_ += frame;
    Send();
  }
  finished_ = true;
  sent_all_.wait_for(lock, limit, [this] { return closed() || queued() == 0; });
  return !broken_ && queued() == 0;
}

void PluginOutput::Close() {
  Lock lock(mutex_);
  sent_all_.notify_all();
  work_.notify_all();
}

void PluginOutput::Defer() {
  deferred_ = true;
  work_.notify_one();
}

void PluginOutput::Send() {
  ++sends_;
  while (queued() > 0 && !broken_ && !full_) {
    const ssize_t step = write(fd_, queue_.data() + sent_, queued());
    if (step >= 0) {
      sent_ += static_cast<std::size_t>(step);
      sent_ever_ += static_cast<std::uint64_t>(step);
    } else if (errno == EAGAIN) {
      full_ = true;
    } else if (errno != EINTR) {
      broken_ = true;
      failure_ = std::strerror(errno);
    }
  }
  if (queued() == 0 || sent_ >= kQueueBytes) {
    queue_.erase(0, sent_);
    sent_ = 0;
  }
  queued() == 0 || broken_ ? sent_all_.notify_all() : work_.notify_one();
}

// The caller waits for the descriptor itself: to be woken by another thread would cost it time.
void PluginOutput::WaitForRoom(Lock& lock) {
  writer_waits_ = true;
  while (!closed() && !finished_ && queued() >= kQueueBytes) WaitForDescriptor(lock);
  writer_waits_ = false;
  work_.notify_one();
}

void PluginOutput::Flush() {
  Lock lock(mutex_);
  for (;;) {
    work_.wait(lock, [this] { return closed() || (queued() > 0 && !writer_waits_); });
    if (closed()) return;
    full_ ? WaitForDescriptor(lock) : Linger(lock);
    if (!Report(lock)) return;
  }
}

void PluginOutput::WaitForDescriptor(Lock& lock) {
  lock.unlock();
  stop_.WaitFor(fd_, POLLOUT);
  lock.lock();
  LookAtRate();
  full_ = false;
  Send();
}

void PluginOutput::LookAtRate() {
  const auto now = std::chrono::steady_clock::now();
  const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(now - looked_at_);
  if (passed < kLook) return;
  const bool fast = sent_ever_ - sent_then_ >= kFastBytesPerMs * static_cast<std::uint64_t>(passed.count());
  if (fast != fast_) SetUnreadBytes(fd_, fast ? kUnreadBytes : kUnreadBytesSlow);
  fast_ = fast;
  looked_at_ = now;
  sent_then_ = sent_ever_;
}

// As long as the flow goes on nobody has to wake this thread, and the writer itself sends what it collects.
void PluginOutput::Linger(Lock& lock) {
  auto pause = kLinger;
  do {
    deferred_ = false;
    const std::uint64_t sends = sends_;
    lock.unlock();
    std::this_thread::sleep_for(pause);
    lock.lock();
    const bool forgotten = sends_ == sends && !full_;
    pause = forgotten ? kLinger : std::min(2 * pause, kLongestLinger);
    if (forgotten) Send();
  } while (deferred_ && !full_ && !closed());
}

bool PluginOutput::Report(Lock& lock) {
  if (!broken_) return true;
  const std::string reason = std::exchange(failure_, {});
  lock.unlock();
  if (!reason.empty()) handler_.OnWriteFailed(reason);
  return false;
}

}  // namespace gxtool

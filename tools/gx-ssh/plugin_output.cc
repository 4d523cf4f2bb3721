#include "gx-ssh/plugin_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace gxtool {

PluginOutput::PluginOutput(int fd, StopSignal& stop, Handler& handler)
    : fd_(fd), stop_(stop), handler_(handler), flusher_([this] { Flush(); }) {}

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
  changed_.wait(lock, [this] { return closed() || finished_ || queued() < kQueueBytes; });
  if (closed() || finished_) return false;
  Put(block);
  between_frames_ = scanner_.AtFrameEnd();
  if (between_frames_ && !inserts_.empty()) Put(std::exchange(inserts_, {}));
  if (!Report(lock)) return false;
  lock.unlock();
  // Only now, so that what the handler inserts in answer comes behind the block.
  for (const gxmod::FrameHeader& header : begun_) handler_.OnFrameSent(header);
  return true;
}

void PluginOutput::Insert(std::string_view frame) {
  Lock lock(mutex_);
  if (closed() || finished_) return;
  if (between_frames_) {
    Put(frame);
  } else {
    inserts_ += frame;
  }
  Report(lock);
}

bool PluginOutput::Finish(std::string_view frame, std::chrono::milliseconds limit) {
  Lock lock(mutex_);
  if (!closed() && !finished_ && between_frames_) Put(frame);
  finished_ = true;
  changed_.notify_all();
  changed_.wait_for(lock, limit, [this] { return closed() || queued() == 0; });
  return !broken_ && queued() == 0;
}

void PluginOutput::Close() {
  Lock lock(mutex_);
  changed_.notify_all();
}

void PluginOutput::Put(std::string_view bytes) {
  if (queued() == 0) bytes.remove_prefix(Send(bytes));
  if (bytes.empty()) return;
  queue_ += bytes;
  changed_.notify_all();
}

std::size_t PluginOutput::Send(std::string_view bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size() && !broken_) {
    const ssize_t step = write(fd_, bytes.data() + sent, bytes.size() - sent);
    if (step >= 0) {
      sent += static_cast<std::size_t>(step);
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      broken_ = true;
      failure_ = std::strerror(errno);
    }
  }
  return sent;
}

void PluginOutput::Flush() {
  Lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return closed() || queued() > 0; });
    if (closed()) return;
    lock.unlock();
    stop_.WaitFor(fd_, POLLOUT);
    lock.lock();
    sent_ += Send(std::string_view(queue_).substr(sent_));
    if (queued() == 0 || sent_ >= kQueueBytes) {
      queue_.erase(0, sent_);
      sent_ = 0;
    }
    changed_.notify_all();
    if (!Report(lock)) return;
  }
}

bool PluginOutput::Report(Lock& lock) {
  if (!broken_) return true;
  const std::string reason = std::exchange(failure_, {});
  lock.unlock();
  if (!reason.empty()) handler_.OnWriteFailed(reason);
  return false;
}

}  // namespace gxtool

#include "gx-ssh/plugin_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/local_socket.h"

namespace gxtool {
namespace {

// The module writes one frame per read of a connection. A read that filled its buffer is followed by another
// one at once, so its frame may wait briefly for the next, and both are sent with one system call.
constexpr std::size_t kFullBlockBytes = 4096;
constexpr std::size_t kBatchBytes = 48 * 1024;
constexpr std::chrono::microseconds kLinger{50};
// While calls of Write send the batches themselves, the flusher doubles its pause up to this.
constexpr std::chrono::microseconds kLongestLinger{1000};

// Limits of unread bytes in the socket. On a fast line a large one saves context switches. On a slow line it
// would keep the descriptor full for many seconds, which the module would take for a stuck far side.
constexpr int kUnreadBytes = 208 * 1024;
constexpr int kUnreadBytesSlow = 8 * 1024;
constexpr std::uint64_t kFastBytesPerMs = 1000;
constexpr std::chrono::milliseconds kLook{20};

// A keystroke waits for all that is in the socket and in the queue. Before a line whose rate is known both hold
// what it carries in so many seconds.
constexpr double kUnreadSeconds = 0.001;  // Linux allows twice as many bytes
constexpr double kQueueSeconds = 0.0004;

// A reader that takes bytes in lumps, at intervals longer than that, finds too few, and the line seems slow. So
// both hold twice as much when most of so many waits ended with an empty socket.
constexpr int kWaits = 16;
constexpr int kMostEmpty = 12;
constexpr int kMostShares = 64;

}  // namespace

PluginOutput::PluginOutput(int fd, StopSignal& stop, Handler& handler, LinePace::Now now)
    : fd_(fd), stop_(stop), handler_(handler), now_(now), flusher_([this] { Flush(); }) {
  SetUnreadBytes(fd_, kUnreadBytesSlow);
}

PluginOutput::~PluginOutput() {
  stop_.Raise();
  Close();
  flusher_.join();
}

bool PluginOutput::Write(const void* data, std::size_t length) {
  const std::string_view block(static_cast<const char*>(data), length);
  const bool from_its_begin = scanner_.AtFrameEnd();
  begun_.clear();
  scanner_.Feed(block);
  for (const gxmod::FrameHeader& header : begun_) handler_.OnSendingFrame(header);
  const bool is_one_frame = from_its_begin && scanner_.AtFrameEnd() && begun_.size() == 1;
  Lock lock(mutex_);
  if (is_one_frame && block.size() > pace_.FrameBytes() && begun_.front().type == gxmod::ConnectionType::Data) {
    if (!PutInPieces(lock, begun_.front(), block.substr(gxmod::kFrameHeaderBytes))) return false;
  } else if (!Put(lock, block)) {
    return false;
  }
  lock.unlock();
  for (const gxmod::FrameHeader& header : begun_) handler_.OnFrameQueued(header);
  return true;
}

bool PluginOutput::PutInPieces(Lock& lock, const gxmod::FrameHeader& header, std::string_view payload) {
  while (!payload.empty()) {
    const std::string_view piece = payload.substr(0, pace_.DataBytes());
    if (!Put(lock, MakeFrame(header.type, header.connection_id, piece))) return false;
    payload.remove_prefix(piece.size());
  }
  return true;
}

bool PluginOutput::Put(Lock& lock, std::string_view bytes) {
  if (MustWait(bytes.size())) WaitForRoom(lock, bytes.size());
  if (!Report(lock) || closed() || finished_) return false;
  queue_ += bytes;
  pace_.OnSent(bytes.size());
  between_frames_ = scanner_.AtFrameEnd();
  const bool more_to_come = inserts_.empty() && bytes.size() >= kFullBlockBytes && queued() < kBatchBytes;
  if (between_frames_) queue_ += std::exchange(inserts_, {});
  more_to_come ? Defer() : Send();
  return Report(lock);
}

bool PluginOutput::MustWait(std::size_t bytes) const {
  return !closed() && !finished_ && (queued() >= most_queued_ || !pace_.HasRoomFor(bytes));
}

void PluginOutput::Insert(std::string_view frame) {
  Lock lock(mutex_);
  PutBetween(lock, frame);
}

void PluginOutput::Answer(std::string_view frame) {
  Lock lock(mutex_);
  if (queued() + inserts_.size() < kQueueBytes) PutBetween(lock, frame);
}

void PluginOutput::Ping() {
  Lock lock(mutex_);
  PutBetween(lock, MakeFrame(kPingFrame, 0, PingPayload(pace_.sent())));
}

void PluginOutput::OnPong(std::string_view payload) {
  if (payload.size() != kPingBytes) return;
  Lock lock(mutex_);
  pace_.OnReceived(SentBefore(payload));
  line_.notify_all();
}

void PluginOutput::Acknowledge(const Acknowledgement& totals, bool rides) {
  Lock lock(mutex_);
  acknowledgement_ = MakeAcknowledgement(totals);
  if (full_ || !between_frames_ || closed() || finished_) return;
  const std::string frame = std::exchange(acknowledgement_, {});
  rides ? void(queue_ += frame) : PutBetween(lock, frame);
}

bool PluginOutput::OnAcknowledgement(const Acknowledgement& totals) {
  Lock lock(mutex_);
  line_.notify_all();
  return pace_.OnAcknowledgement(totals);
}

LinePace::View PluginOutput::line() const {
  Lock lock(mutex_);
  return pace_.view();
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
  line_.notify_all();
  sent_all_.wait_for(lock, limit, [this] { return closed() || queued() == 0; });
  return !broken_ && queued() == 0;
}

void PluginOutput::Close() {
  Lock lock(mutex_);
  sent_all_.notify_all();
  work_.notify_all();
  line_.notify_all();
}

void PluginOutput::Defer() {
  deferred_ = true;
  work_.notify_one();
}

void PluginOutput::Send() {
  ++sends_;
  LookAtRate();
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
      line_.notify_all();
    }
    if (queued() == 0 && between_frames_) queue_ += std::exchange(acknowledgement_, {});
  }
  if (queued() == 0 || sent_ >= kQueueBytes) {
    queue_.erase(0, sent_);
    sent_ = 0;
  }
  queued() == 0 || broken_ ? sent_all_.notify_all() : work_.notify_one();
}

// The caller waits for the descriptor itself, because waking it from another thread would take longer. While it
// waits for the line, the flusher sends the queue.
void PluginOutput::WaitForRoom(Lock& lock, std::size_t bytes) {
  Send();
  while (MustWait(bytes)) {
    writer_waits_ = queued() >= most_queued_;
    writer_waits_ ? WaitForDescriptor(lock) : line_.wait(lock);
    if (std::exchange(writer_waits_, false)) work_.notify_one();
  }
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
  LookAtReader();
  LookAtRate();
  full_ = false;
  Send();
}

void PluginOutput::LookAtReader() {
  if (most_queued_ >= kQueueBytes && shares_ == 1) return;  // both hold the maximum anyway
  empty_ += UnreadBytes(fd_) == 0 ? 1 : 0;
  if (++waits_ < kWaits) return;
  if (empty_ >= kMostEmpty) {
    shares_ = std::min(2 * shares_, kMostShares);
  } else if (empty_ == 0) {
    shares_ = std::max(shares_ / 2, 1);
  }
  waits_ = empty_ = 0;
}

void PluginOutput::LookAtRate() {
  const LinePace::View line = pace_.view();
  if (!line.known && !full_) return;
  const LinePace::Clock::time_point now = now_();
  const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(now - looked_at_);
  if (passed < kLook) return;
  const auto of_line = [&](double seconds, double least, double most) {
    return std::clamp(line.bytes_per_s * seconds * shares_, least, most);
  };
  if (line.known) {
    SetUnreadBytes(fd_, static_cast<int>(of_line(kUnreadSeconds, kUnreadBytesSlow, kUnreadBytes)));
    most_queued_ = static_cast<std::size_t>(of_line(kQueueSeconds, kFullBlockBytes, kQueueBytes));
  } else {
    const bool fast = sent_ever_ - sent_then_ >= kFastBytesPerMs * static_cast<std::uint64_t>(passed.count());
    SetUnreadBytes(fd_, fast ? kUnreadBytes : kUnreadBytesSlow);
  }
  looked_at_ = now;
  sent_then_ = sent_ever_;
}

// Sends a batch that Write has not sent within a pause. Staying here while batches follow each other saves
// waking this thread for each.
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

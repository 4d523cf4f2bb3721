#include "gx-ssh/output_queue.h"

#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "gx-ssh/stop_signal.h"

namespace gxtool {
namespace {

constexpr std::chrono::milliseconds kLastChance{300};  // for the reader
constexpr std::chrono::seconds kLongestWrite{1};       // when there was room for it

// A pipe that is ready takes this much without blocking.
constexpr std::size_t kStepBytes = std::min<std::size_t>(PIPE_BUF, 4096);

ssize_t WriteStep(int fd, std::string_view text) {
  text = text.substr(0, kStepBytes);
  const ssize_t sent = send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent < 0 && errno == ENOTSOCK ? write(fd, text.data(), text.size()) : sent;
}

bool HasRoom(int fd) {
  pollfd one{fd, POLLOUT, 0};
  return poll(&one, 1, 0) == 1;
}

}  // namespace

class OutputQueue::Writer {
 public:
  Writer(int fd, std::function<std::string(std::uint64_t)> lost_line)
      : fd_(fd), lost_line_(std::move(lost_line)) {}

  void Add(std::string line, Kind kind) {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
    bytes_ += line.size();
    statistics_ += kind == Kind::kStatistics ? 1 : 0;
    lines_.push_back({std::move(line), kind});
    while (bytes_ > kBytes) DropOne();
    changed_.notify_all();
  }

  // The writing thread.
  void Run() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);  // including SIGTTOU, which stops background writers
    for (std::string line; !(line = Next()).empty();) {
      if (!Write(line)) break;
    }
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  bool WaitUntilWritten(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return ended_ || (lines_.empty() && !writing_); });
  }

  // Gives the reader a moment; then the thread writes only what there is room for. Returns true when the thread
  // has ended. Otherwise a write blocks it, because another process filled the pipe first or a terminal is
  // slow.
  bool Finish() {
    std::unique_lock lock(mutex_);
    finishing_ = true;
    changed_.notify_all();
    if (changed_.wait_for(lock, kLastChance, [this] { return ended_; })) return true;
    lock.unlock();
    stop_.Raise();
    lock.lock();
    return changed_.wait_for(lock, kLongestWrite, [this] { return ended_; });
  }

 private:
  struct Line {
    std::string text;
    Kind kind;
  };

  void DropOne() {
    const auto is_statistics = [](const Line& line) { return line.kind == Kind::kStatistics; };
    const auto victim =
        statistics_ == 0 ? lines_.begin() : std::find_if(lines_.begin(), lines_.end(), is_statistics);
    Forget(*victim);
    lines_.erase(victim);
    ++lost_;
  }

  void Forget(const Line& line) {
    bytes_ -= line.text.size();
    statistics_ -= line.kind == Kind::kStatistics ? 1 : 0;
  }

  // Returns an empty text at the end.
  std::string Next() {
    std::unique_lock lock(mutex_);
    writing_ = false;
    changed_.notify_all();
    changed_.wait(lock, [this] { return finishing_ || !lines_.empty(); });
    if (lines_.empty() && lost_ == 0) return {};
    writing_ = true;
    if (lost_ > 0) return lost_line_(std::exchange(lost_, 0));
    Forget(lines_.front());
    std::string line = std::move(lines_.front().text);
    lines_.pop_front();
    return line;
  }

  // Returns false when stopped and without room. Skips a line that cannot be written; the next one may succeed.
  bool Write(std::string_view text) {
    while (!text.empty()) {
      if (!stop_.WaitFor(fd_, POLLOUT) && !HasRoom(fd_)) return false;
      const ssize_t taken = WriteStep(fd_, text);
      if (taken < 0 && errno != EAGAIN && errno != EINTR) return true;
      if (taken > 0) text.remove_prefix(static_cast<std::size_t>(taken));
    }
    return true;
  }

  const int fd_;
  const std::function<std::string(std::uint64_t)> lost_line_;
  StopSignal stop_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  std::deque<Line> lines_;
  std::size_t bytes_ = 0;
  std::size_t statistics_ = 0;  // lines of this kind
  std::uint64_t lost_ = 0;
  bool writing_ = false;  // a line that was already taken from lines_
  bool finishing_ = false;
  bool ended_ = false;
};

OutputQueue::OutputQueue(int fd, std::function<std::string(std::uint64_t)> lost_line)
    : writer_(std::make_shared<Writer>(fd, std::move(lost_line))),
      thread_([writer = writer_] { writer->Run(); }) {}

OutputQueue::~OutputQueue() { writer_->Finish() ? thread_.join() : thread_.detach(); }

bool OutputQueue::WaitUntilWritten(std::chrono::milliseconds limit) { return writer_->WaitUntilWritten(limit); }

void OutputQueue::Add(std::string line, Kind kind) { writer_->Add(std::move(line), kind); }

}  // namespace gxtool

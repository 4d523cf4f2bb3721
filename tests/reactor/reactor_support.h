// Tasks, timers and sockets for the reactor's tests.
#ifndef GX_TESTS_REACTOR_REACTOR_SUPPORT_H
#define GX_TESTS_REACTOR_REACTOR_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

#include "object/creference.h"
#include "reactor/tcp_task.h"
#include "reactor/timer.h"

// Counts events on any thread and waits for them, not for ever.
class Counter {
 public:
  void Add() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  int Get() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  // False: fewer than `count` after a generous time.
  bool WaitFor(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

using Action = std::function<void()>;

class FakeTask final : public ITCPTask {
 public:
  FakeTask(int descriptor, SelectOp op, Action done = {}, Action gone = {})
      : ITCPTask(descriptor, op), done_(std::move(done)), gone_(std::move(gone)) {}

  bool Done() override {
    if (done_) done_();
    return true;
  }
  bool timeout() override { return timed_out; }
  unsigned long timeleft() override { return left_ms; }

  std::atomic<bool> timed_out{false};
  std::atomic<unsigned long> left_ms{~0UL};

 private:
  ~FakeTask() override {
    if (gone_) gone_();
  }

  const Action done_;
  const Action gone_;
};

class FakeTimer final : public ITask, private CReference {
 public:
  explicit FakeTimer(Action done = {}, Action gone = {}) : done_(std::move(done)), gone_(std::move(gone)) {}

  GX_FORWARD_REFERENCE();
  void MarkedForDeletion() override {}
  void Done() override {
    if (done_) done_();
  }

 private:
  ~FakeTimer() override {
    if (gone_) gone_();
  }

  const Action done_;
  const Action gone_;
};

// Two connected sockets.
class SocketPair {
 public:
  SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()); }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair() {
    close(ends_[0]);
    close(ends_[1]);
  }

  int descriptor() const { return ends_[0]; }
  // descriptor() becomes readable.
  void Send() const { EXPECT_EQ(send(ends_[1], "x", 1, 0), 1); }

 private:
  std::array<int, 2> ends_{-1, -1};
};

#endif  // GX_TESTS_REACTOR_REACTOR_SUPPORT_H

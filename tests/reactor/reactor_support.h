// Tasks, timers and sockets for the reactor's tests.
#ifndef GX_TESTS_REACTOR_REACTOR_SUPPORT_H
#define GX_TESTS_REACTOR_REACTOR_SUPPORT_H

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "object/creference.h"
#include "reactor/tcp_task.h"
#include "reactor/timer.h"
#include "support/test.h"
#include "support/wait.h"

using Action = std::function<void()>;
const Action kNothing = [] {};

// Counts events on any thread.
using Counter = std::atomic<int>;
inline bool Reaches(const Counter& counter, int count) {
  return gxtest::Eventually([&] { return counter >= count; });
}

class FakeTask final : public ITCPTask {
 public:
  FakeTask(int descriptor, SelectOp op, Action done = kNothing, Action gone = kNothing)
      : ITCPTask(descriptor, op), done_(std::move(done)), gone_(std::move(gone)) {}
  ~FakeTask() override { gone_(); }

  bool Done() override {
    done_();
    return true;
  }
  bool timeout() override {
    asked();
    return timed_out;
  }
  unsigned long timeleft() override { return left_ms; }

  Action asked = kNothing;  // called when the tracker asks for its time limit
  std::atomic<bool> timed_out{false};
  std::atomic<unsigned long> left_ms{~0UL};

 private:
  const Action done_;
  const Action gone_;
};

class FakeTimer final : public ITask, private CReference {
 public:
  explicit FakeTimer(Action done = kNothing, Action gone = kNothing)
      : done_(std::move(done)), gone_(std::move(gone)) {}
  ~FakeTimer() override { gone_(); }
  GX_FORWARD_REFERENCE();
  void MarkedForDeletion() override {}
  void Done() override { done_(); }

 private:
  const Action done_;
  const Action gone_;
};

// Two connected sockets. The test decides what the first one is ready for; a copy has another number.
class SocketPair {
 public:
  SocketPair() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends_.data()), 0);
    copy_ = fcntl(ends_[0], F_DUPFD_CLOEXEC, 700);  // a number that the system does not use again soon
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair() {
    CloseCopy();
    for (const int end : ends_) close(end);
  }

  int descriptor() const { return ends_[0]; }
  int copy() const { return copy_; }
  void CloseCopy() {
    if (copy_ != -1) close(std::exchange(copy_, -1));
  }
  void Send() const { EXPECT_EQ(send(ends_[1], "x", 1, 0), 1); }
  void MakeReadable(bool yes) const { yes ? Fill(ends_[1]) : Empty(ends_[0]); }
  void MakeWritable(bool yes) const { yes ? Empty(ends_[1]) : Fill(ends_[0]); }

 private:
  static void Fill(int end) {
    std::array<char, 65536> block{};
    while (send(end, block.data(), block.size(), 0) > 0) {
    }
  }
  static void Empty(int end) {
    std::array<char, 65536> block;
    while (recv(end, block.data(), block.size(), 0) > 0) {
    }
  }

  std::array<int, 2> ends_{-1, -1};
  int copy_ = -1;
};

#endif  // GX_TESTS_REACTOR_REACTOR_SUPPORT_H

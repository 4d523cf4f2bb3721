#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "base/clock.h"
#include "stream/base_stream.h"
#include "support/pattern.h"

namespace {

constexpr unsigned long kTimeoutMs = 600000;
constexpr unsigned kRequests = 20000;
constexpr unsigned kRequestBytes = 3;
constexpr std::chrono::seconds kBound{30};

// A transport that, like a socket with a tracker, is woken exactly once after each operation that found it
// busy. A wake-up that the routines lose therefore stops the test for good.
class TrackedStream : public CBaseStream {
 public:
  explicit TrackedStream(const std::string& incoming)
      : CBaseStream(/*type=*/0, /*connected=*/true), incoming_(incoming) {}

  // One turn of the reactor. False: nobody is waiting any more.
  bool ServeOnce() {
    bool readable = false;
    bool writable = false;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      const auto due = [this] { return receive_.waiting || send_.waiting || stopped_; };
      if (!changed_.wait_for(lock, kBound, due) || stopped_) return false;
      readable = receive_.Wake();
      writable = send_.Wake();
    }
    timeleft(gettickcount());
    if (readable) RecvRout(true);
    if (writable) SendRout(true);
    return true;
  }

  void StopServing() {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
  }

  // Waits until that many requests of each direction have completed.
  bool WaitForRequests(unsigned count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kBound,
                             [&] { return receive_.completed >= count && send_.completed >= count; });
  }

  std::string received;
  std::string sent;

  bool read(char* data, long length, long& count, long) override {
    count = Move(receive_, length);
    incoming_.copy(data, static_cast<std::size_t>(count), next_incoming_);
    next_incoming_ += static_cast<std::size_t>(count);
    return true;
  }
  bool peek(char*, long, long&, long) override { return false; }
  bool write(const char* data, long length, long& count, long, long) override {
    count = Move(send_, length);
    sent.append(data, static_cast<std::size_t>(count));
    return true;
  }
  bool read_step(IBuffer* buffer, unsigned long length) override {
    received.append(static_cast<const char*>(buffer->GetPointer()) + buffer->GetSize() - length, length);
    return true;
  }
  bool read_done(IBuffer*, unsigned long) override { return Complete(receive_); }
  bool write_done(IBuffer*, unsigned long) override { return Complete(send_); }

 private:
  struct Way {
    long ready = 0;        // bytes that can move now
    bool waiting = false;  // found busy; to be woken
    unsigned completed = 0;

    bool Wake() {
      if (!waiting) return false;
      waiting = false;
      ready = 1 + completed % 5;
      return true;
    }
  };

  long Move(Way& way, long length) {
    std::unique_lock<std::mutex> lock(mutex_);
    const long moved = std::min(length, way.ready);
    way.ready -= moved;
    if (moved != 0) return moved;
    way.waiting = true;
    changed_.notify_all();
    lock.unlock();
    std::this_thread::yield();  // lets the wake-up arrive while the routine is still on its way out
    return 0;
  }

  bool Complete(Way& way) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++way.completed;
    changed_.notify_all();
    return true;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Way receive_;
  Way send_;
  bool stopped_ = false;
  const std::string& incoming_;
  std::size_t next_incoming_ = 0;
};

TEST(BaseStreamThreadsTest, NoRequestAndNoWakeUpIsLost) {
  const std::string bytes = gxtest::Pattern(kRequests * kRequestBytes);
  const CRefObj<TrackedStream> stream(new TrackedStream(bytes));
  std::thread reactor([&] {
    while (stream->ServeOnce()) {
    }
  });
  // Each request comes as the one before completes, so that the threads keep meeting at the empty queue.
  unsigned done = 0;
  for (; done < kRequests; ++done) {
    stream->Read(nullptr, kRequestBytes, kTimeoutMs);
    stream->Write(&bytes[done * kRequestBytes], kRequestBytes, kTimeoutMs);
    if (!stream->WaitForRequests(done + 1)) break;
  }
  EXPECT_EQ(done, kRequests) << "a request was never run";
  stream->StopServing();
  reactor.join();
  EXPECT_TRUE(stream->received == bytes);
  EXPECT_TRUE(stream->sent == bytes);
}

}  // namespace

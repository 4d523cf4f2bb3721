#include "peer/event_loop.h"

#include <algorithm>
#include <thread>

namespace gxtool {
namespace {

// Less than this at a time comes from a sender that is slower than the reader, who would wait in vain.
constexpr std::size_t kMuchBytes = 64 * 1024;
constexpr std::chrono::microseconds kShortestWait{1};

}  // namespace

void EventLoop::Run() {
  while (!io_.stopped()) {
    io_.run_one();
    while (transfers_) {
      if (io_.poll() != 0) continue;
      transfers_ = false;  // unless what comes now is more of it
      WaitAwake();
    }
  }
}

void EventLoop::OnRead(std::size_t bytes) { transfers_ = transfers_ || bytes >= kMuchBytes; }

void EventLoop::WaitAwake() {
  const Clock::time_point end = Clock::now() + wait_;
  bool came = false;
  do {
    std::this_thread::yield();
    came = io_.poll() != 0;
  } while (!came && Clock::now() < end);
  wait_ = came ? std::min(2 * wait_, kLongestWait) : std::max(wait_ / 2, kShortestWait);
}

}  // namespace gxtool

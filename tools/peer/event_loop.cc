#include "peer/event_loop.h"

#include <algorithm>

namespace gxtool {
namespace {

// After smaller reads do not spin: the sender is slower than the reader.
constexpr std::size_t kMuchBytes = 64 * 1024;
constexpr std::chrono::microseconds kShortestWait{1};

}  // namespace

void EventLoop::Run() {
  while (!io_.stopped()) {
    io_.run_one();
    while (transfers_) {
      if (io_.poll() != 0) continue;
      transfers_ = false;  // set again if more data arrives
      WaitAwake();
    }
  }
}

void EventLoop::OnRead(std::size_t bytes) { transfers_ = transfers_ || bytes >= kMuchBytes; }

void EventLoop::WaitAwake() {
  if (spin_.pauses()) return;  // without a spin, wait_ stays as it is
  const bool came = spin_.Wait(wait_, [this] { return io_.poll() != 0; });
  wait_ = came ? std::min(2 * wait_, kLongestWait) : std::max(wait_ / 2, kShortestWait);
}

}  // namespace gxtool

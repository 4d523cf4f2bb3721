// Runs an io_context, wide awake while a transfer goes on.
#ifndef GX_PEER_EVENT_LOOP_H
#define GX_PEER_EVENT_LOOP_H

#include <chrono>
#include <cstddef>

#include "peer/asio_types.h"

namespace gxtool {

// Behind bytes of a transfer the next ones are nearly there, and to fall asleep and be woken costs everybody on
// the way more than a moment's wait. So the loop looks again a few times, behind everyone else who wants the
// processor: for kLongestWait at most, and for ever less as long as that is in vain.
// Threads: the one that calls Run.
class EventLoop {
 public:
  explicit EventLoop(asio::io_context& io) : io_(io) {}

  // Until the io_context is stopped or has no work left.
  void Run();

  // For handlers: so many bytes have come with one read.
  void OnRead(std::size_t bytes);

 private:
  static constexpr std::chrono::microseconds kLongestWait{50};

  void WaitAwake();

  asio::io_context& io_;
  bool transfers_ = false;
  std::chrono::microseconds wait_ = kLongestWait;
};

}  // namespace gxtool

#endif  // GX_PEER_EVENT_LOOP_H

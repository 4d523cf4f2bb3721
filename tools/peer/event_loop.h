// Runs an io_context, and spins briefly during transfers.
#ifndef GX_PEER_EVENT_LOOP_H
#define GX_PEER_EVENT_LOOP_H

#include <chrono>
#include <cstddef>

#include "common/spin.h"
#include "peer/asio_types.h"

namespace gxtool {

// During a transfer the next bytes usually arrive within microseconds, and sleeping and waking costs both sides
// more than a short spin. So the loop polls for at most kLongestWait before it sleeps, unless `Spin`
// pauses. Each spin without success halves the time of the next one. Threads: the one that calls Run.
class EventLoop {
 public:
  explicit EventLoop(asio::io_context& io) : io_(io) {}

  // Runs until the io_context is stopped or has no work left.
  void Run();

  // Handlers call this with the size of each read.
  void OnRead(std::size_t bytes);

 private:
  static constexpr std::chrono::microseconds kLongestWait{50};

  void WaitAwake();

  asio::io_context& io_;
  Spin spin_;
  bool transfers_ = false;
  std::chrono::microseconds wait_ = kLongestWait;
};

}  // namespace gxtool

#endif  // GX_PEER_EVENT_LOOP_H

// Detects that the other side has fallen silent.
// Threads: the one that runs the io_context.
#ifndef GX_PEER_KEEPALIVE_H
#define GX_PEER_KEEPALIVE_H

#include <chrono>

#include "peer/asio_types.h"

namespace gxtool {

class Keepalive {
 public:
  class Owner {
   public:
    // Nothing arrived for one more interval: send a ping.
    virtual void OnQuiet() = 0;
    // Nothing arrived for all intervals. The last call.
    virtual void OnSilent() = 0;
    // True while this side does not read: the time then does not count as silence. Pings continue, because they
    // show that this side is alive.
    virtual bool IsDeaf() const = 0;

   protected:
    ~Owner() = default;
  };

  // An interval of 0 disables it. `owner` is borrowed.
  Keepalive(asio::io_context& io, std::chrono::milliseconds interval, int count, Owner* owner)
      : timer_(io), interval_(interval), count_(count), owner_(owner) {}

  void Start();
  void OnReceived() {
    last_received_ = Clock::now();
    looks_again_ = false;
  }

 private:
  void Arm(Clock::time_point when);
  void OnTimer();

  Timer timer_;
  const std::chrono::milliseconds interval_;
  const int count_;
  Owner* const owner_;
  Clock::time_point last_received_;
  bool looks_again_ = false;
};

}  // namespace gxtool

#endif  // GX_PEER_KEEPALIVE_H

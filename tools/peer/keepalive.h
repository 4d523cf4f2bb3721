// Notices that the other side has fallen silent.
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
    // Nothing came for an interval, or for another one: time to ask.
    virtual void OnQuiet() = 0;
    // Nothing came for all intervals. The last call.
    virtual void OnSilent() = 0;
    // Nothing is read at present, so silence says nothing about the other side. It is asked all the same,
    // because the question shows that this side lives.
    virtual bool IsDeaf() const = 0;

   protected:
    ~Owner() = default;
  };

  // An interval of 0 watches nothing. `owner` is not owned.
  Keepalive(asio::io_context& io, std::chrono::milliseconds interval, int count, Owner* owner)
      : timer_(io), interval_(interval), count_(count), owner_(owner) {}

  void Start();
  void OnReceived() { last_received_ = Clock::now(); }

 private:
  void Arm(Clock::time_point when);
  void OnTimer();

  Timer timer_;
  const std::chrono::milliseconds interval_;
  const int count_;
  Owner* const owner_;
  Clock::time_point last_received_;
};

}  // namespace gxtool

#endif  // GX_PEER_KEEPALIVE_H

// Waits until a socket is readable, and lets a transfer's bytes accumulate meanwhile.
//
// A wake-up per packet costs all programs on the way more than the packet itself. So after kMuchBytes a wait is
// for kBatchBytes (with SO_RCVLOWAT) or for kPatience, whichever comes first; the end of the stream ends it at
// once. A sender that has sent everything and waits for an answer loses that time. So after a timeout batching
// stays off: for 16 times kPatience if no byte arrived in the second half of the wait, otherwise for a part of
// that, in proportion to the bytes that were missing.
// Threads: the one that runs the io_context.
#ifndef GX_PEER_READ_WAIT_H
#define GX_PEER_READ_WAIT_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>

#include "peer/asio_types.h"

namespace gxtool {

class ReadWait {
 public:
  class Owner {
   public:
    // Called once after Start, from the event loop: the socket has bytes, an end or an error, or it was closed.
    virtual void OnReadReady() = 0;

   protected:
    ~Owner() = default;
  };

  static constexpr std::size_t kMuchBytes = 16 * 1024;
  static constexpr std::size_t kBatchBytes = 256 * 1024;
  static constexpr std::chrono::microseconds kPatience{1000};

  // `socket` is borrowed and outlives the wait.
  ReadWait(asio::io_context& io, StreamSocket& socket) : socket_(socket), timer_(io) {}

  // Starts a wait, after `got` bytes were read since the last one. Call it while no wait is pending. `owner`
  // owns this object and the socket; the wait keeps it alive.
  void Start(std::size_t got, const std::shared_ptr<Owner>& owner);
  bool pending() const { return pending_; }

 private:
  void SetLowWater(std::size_t bytes);
  void WatchSocket(const std::shared_ptr<Owner>& owner);
  void WatchClock(const std::shared_ptr<Owner>& owner);
  void OnClock(const std::shared_ptr<Owner>& owner);
  void OnTimeOver(Owner& owner);
  std::size_t unread() const;
  void Finish(Owner& owner);

  StreamSocket& socket_;
  Timer timer_;
  bool pending_ = false;
  bool socket_watched_ = false;
  bool clock_watched_ = false;
  std::size_t low_water_ = 1;                  // number of unread bytes that ends a wait
  Clock::time_point end_;                      // end of a wait for more than one byte
  std::optional<std::size_t> unread_at_half_;  // unread bytes at half of its time
  Clock::time_point patient_from_;
};

}  // namespace gxtool

#endif  // GX_PEER_READ_WAIT_H

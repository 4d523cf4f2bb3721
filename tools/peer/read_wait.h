// Waits until a socket can be read, and lets the bytes of a transfer add up meanwhile.
//
// To be woken for every packet costs all programs on the way more than to carry it. So behind kMuchBytes a wait
// is for kBatchBytes, or for kPatience; the end of the stream ends it at once. A sender that has said all and
// wants an answer loses that time. So behind a wait in whose second half nothing came every byte counts again,
// for sixteen times as long; when more was still coming, only for the share of that which was missing.
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
    // Once after Start, from the event loop: there are bytes, an end or an error to read, or the socket was
    // closed.
    virtual void OnReadReady() = 0;

   protected:
    ~Owner() = default;
  };

  static constexpr std::size_t kMuchBytes = 16 * 1024;
  static constexpr std::size_t kBatchBytes = 256 * 1024;
  static constexpr std::chrono::microseconds kPatience{1000};

  // `socket` is not owned and outlives the wait.
  ReadWait(asio::io_context& io, StreamSocket& socket) : socket_(socket), timer_(io) {}

  // While none is pending, and behind `got` bytes since the last one. `owner` is the one of this and of the
  // socket, and lives until the socket has something to read or is closed.
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
  std::size_t low_water_ = 1;                  // so many unread bytes end a wait
  Clock::time_point end_;                      // of a wait for more than one byte
  std::optional<std::size_t> unread_at_half_;  // of its time
  Clock::time_point patient_from_;
};

}  // namespace gxtool

#endif  // GX_PEER_READ_WAIT_H

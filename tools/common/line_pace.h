// Limits the bytes under way, so that a line is busy but has only a short queue.
#ifndef GX_COMMON_LINE_PACE_H
#define GX_COMMON_LINE_PACE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "common/control_frames.h"

namespace gxtool {

// Compares sent and acknowledged bytes, independent of where the buffers in between are: pipes, ssh's window, a
// modem. It allows about as many bytes under way as the line carries in one round trip plus kSlack.
//
// It uses ideas of delay-based congestion control from the literature (BBR and similar). Each acknowledgement
// gives a sample of the delivery rate, measured from the last acknowledgement before the byte was sent. The
// rate is the maximum of recent samples, the round trip the minimum. The window doubles as long as a full
// window causes no queue, at the start and, more carefully, after the line has become faster. kSlack also
// probes: on a line that has become faster, these bytes raise the rate. A queue of our own bytes looks like a
// long round trip. So the line is drained for one round trip, at intervals and when round trips stay too long.
//
// Unlike those, it sees no losses, which a byte stream hides, and sends without a timer.
// Threads: one at a time.
class LinePace {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = Clock::time_point (*)();

  static constexpr std::chrono::milliseconds kSlack{25};
  static constexpr std::size_t kMostDataBytes = 64 * 1024;

  explicit LinePace(Now now = &Clock::now) : now_(now) {}

  // False before the first acknowledgement, which the other side may not support, and after End.
  bool limits() const { return limits_; }
  void End() { ended_ = true, limits_ = false; }

  // `bytes` are being sent, whatever the limit.
  void OnSent(std::size_t bytes);
  // Returns false for impossible totals; the impossible part is ignored.
  bool OnAcknowledgement(const Acknowledgement& totals);
  // The first `total` bytes were received. Ignored when outdated.
  void OnReceived(std::uint64_t total);

  // The number of bytes that may be sent now; `spare` enlarges the window by as much.
  std::uint64_t Room(std::size_t spare = 0) const;
  // Whether a frame of that size may be sent: an empty line takes any permitted size.
  bool HasRoomFor(std::size_t bytes) const;
  // The maximum payload of a Data frame: about 10 ms of a slow line.
  std::size_t DataBytes() const { return data_bytes_; }
  std::size_t FrameBytes() const { return gxmod::kFrameHeaderBytes + data_bytes_; }

  std::uint64_t sent() const { return sent_; }

  // Measurements for messages.
  struct View {
    bool known = false;
    double bytes_per_s = 0;
    double round_trip_s = 0;
    std::uint64_t under_way = 0;  // bytes
  };
  View view() const;

 private:
  // A sent byte whose acknowledgement gives a sample.
  struct Mark {
    std::uint64_t end;  // bytes sent up to and including it
    Clock::time_point time;
    std::uint64_t under_way;  // before it was sent
    std::uint64_t received;   // when it was sent
    Clock::time_point received_at;
  };

  std::uint64_t under_way() const { return sent_ - received_; }
  void Take(std::uint64_t received, Clock::time_point now);
  void TakeSample(const Mark& mark, Clock::time_point now);
  void TakeRoundTrip(const Mark& mark, double seconds, Clock::time_point now);
  void TakeRate(double rate, bool has_queued, Clock::time_point now);
  void EndRound(Clock::time_point now);
  void Drain(Clock::time_point now);
  void Update();
  double growth() const;  // factor on the window

  const Now now_;
  bool limits_ = false;
  bool ended_ = false;
  std::uint64_t sent_ = 0;
  std::uint64_t received_ = 0;
  std::uint64_t permitted_ = 0;
  Clock::time_point received_at_{};  // the last acknowledgement with progress
  std::deque<Mark> marks_;           // in order; a bounded number
  std::uint64_t marked_ = 0;         // end of the last mark

  double rate_ = 0;  // bytes per second: the larger one of the next two
  double rate_now_ = 0;
  double rate_before_ = 0;
  Clock::time_point rate_since_{};
  bool line_limits_ = false;  // a queue has shown that the rate is the line's, not the sender's

  double round_trip_ = 0;  // the minimum, seconds; 0: unknown
  Clock::time_point round_trip_at_{};
  Clock::time_point long_since_{};  // since then all round trips were too long; 0: the last one was not
  bool drains_ = false;             // nothing is sent until nothing is under way
  bool renews_ = false;             // the next round trip of the empty line replaces round_trip_

  std::uint64_t round_end_ = 0;  // end of the current round, in bytes sent
  double round_least_ = 0;       // the round's least round trip, seconds; 0: none yet
  bool round_full_ = false;      // the window was used up in this round
  int growing_rounds_ = 1;       // rounds in a row that filled the window without a queue

  std::uint64_t window_ = 0;
  std::size_t data_bytes_ = kMostDataBytes;
};

}  // namespace gxtool

#endif  // GX_COMMON_LINE_PACE_H

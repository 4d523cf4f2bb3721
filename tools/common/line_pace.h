// How many bytes may be under way, so that a line is busy and yet nothing queues on it for long.
#ifndef GX_COMMON_LINE_PACE_H
#define GX_COMMON_LINE_PACE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "common/control_frames.h"

namespace gxtool {

// Watches what was sent and what is acknowledged, wherever the buffers lie in between: pipes, the window of an
// ssh, a modem. It keeps about as much under way as the line carries in one round trip, and kSlack more.
//
// The ideas are those of delay-based congestion control as in the literature (BBR and its like). Each
// acknowledgement gives a sample of the delivery rate, counted from the last acknowledgement before the byte
// was sent. The rate is the greatest of the last samples, the round trip the least one. While a full window
// leaves no queue it doubles, at the start and after the line has become faster. kSlack is a lasting probe:
// were there more room on the line, these bytes would show it. Against a queue of our own that passes for a
// long line, the line runs empty for one round trip, now and then and when round trips stay too long.
//
// There are no losses, which a byte stream hides, and no pacing by a timer. Threads: one at a time.
class LinePace {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = Clock::time_point (*)();

  static constexpr std::chrono::milliseconds kSlack{25};
  static constexpr std::size_t kMostDataBytes = 64 * 1024;

  explicit LinePace(Now now = &Clock::now) : now_(now) {}

  // There is no limit before the first acknowledgement, since the other side may not know of any, and none
  // after End.
  bool limits() const { return limits_; }
  void End() { ended_ = true, limits_ = false; }

  // So many bytes go out, whatever the limit says.
  void OnSent(std::size_t bytes);
  // False: no honest side says that. What of it is impossible counts for nothing.
  bool OnAcknowledgement(const Acknowledgement& totals);
  // All that was sent before has been received. Out of date, it counts for nothing.
  void OnReceived(std::uint64_t total);

  // So many bytes may go out now; with `spare`, as if the window were that much larger.
  std::uint64_t Room(std::size_t spare = 0) const;
  // The same for a frame: an empty line takes one of any size that is permitted.
  bool HasRoomFor(std::size_t bytes) const;
  // The most payload of a Data frame: on a slow line about 10 ms of it.
  std::size_t DataBytes() const { return data_bytes_; }
  std::size_t FrameBytes() const { return gxmod::kFrameHeaderBytes + data_bytes_; }

  std::uint64_t sent() const { return sent_; }

  // For people.
  struct View {
    bool known = false;
    double bytes_per_s = 0;
    double round_trip_s = 0;
    std::uint64_t under_way = 0;  // bytes
  };
  View view() const;

 private:
  // A byte whose acknowledgement is awaited.
  struct Mark {
    std::uint64_t end;  // of what had been sent with it
    Clock::time_point time;
    std::uint64_t under_way;  // before it
    std::uint64_t received;   // by then
    Clock::time_point received_at;
  };

  std::uint64_t under_way() const { return sent_ - received_; }
  void Take(std::uint64_t received, Clock::time_point now);
  void TakeSample(const Mark& mark, Clock::time_point now);
  void TakeRoundTrip(const Mark& mark, double seconds, Clock::time_point now);
  void TakeRate(double rate, bool has_queued, Clock::time_point now);
  void EndRound();
  void Drain(Clock::time_point now);
  void Update();

  const Now now_;
  bool limits_ = false;
  bool ended_ = false;
  std::uint64_t sent_ = 0;
  std::uint64_t received_ = 0;
  std::uint64_t permitted_ = 0;
  Clock::time_point received_at_{};  // the last acknowledgement that brought something
  std::deque<Mark> marks_;           // in order, never many
  std::uint64_t marked_ = 0;         // the end of the last one

  double rate_ = 0;  // bytes a second: the greater one of the next two
  double rate_now_ = 0;
  double rate_before_ = 0;
  Clock::time_point rate_since_{};
  bool line_limits_ = false;  // a queue has shown that the rate is the line's

  double round_trip_ = 0;  // the least, seconds; 0: unknown
  Clock::time_point round_trip_at_{};
  Clock::time_point long_since_{};  // all round trips were far too long; 0: the last one was not
  bool drains_ = false;             // nothing goes out until nothing is under way
  bool renews_ = false;             // the next round trip of an empty line replaces round_trip_

  std::uint64_t round_end_ = 0;  // one round trip, in bytes sent
  double round_least_ = 0;       // its least round trip, seconds; 0: none yet
  bool round_full_ = false;      // the window was used up
  bool grows_ = true;

  std::uint64_t window_ = 0;
  std::size_t data_bytes_ = kMostDataBytes;
};

}  // namespace gxtool

#endif  // GX_COMMON_LINE_PACE_H

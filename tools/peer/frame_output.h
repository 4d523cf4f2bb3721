// The outgoing half of the stream.
//
// Frames are built where they are written from: a payload is read from its target straight into the space
// behind its header, and whole runs of frames leave in one write. Runs and frames are large, which is cheap. No
// more than one run is ever queued ahead of a new frame, except for answers that must not wait (AddControl).
// While somebody waits for small answers, SetInteractive trades some of the cheapness for less ahead of them.
// On a line whose other side acknowledges what comes no more data is added than the line carries.
// Threads: the one that runs the io_context.
#ifndef GX_PEER_FRAME_OUTPUT_H
#define GX_PEER_FRAME_OUTPUT_H

#include <gxmod/frames.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "common/control_frames.h"
#include "common/line_pace.h"
#include "peer/asio_types.h"

namespace gxtool {

inline constexpr std::size_t kDataBytes = 64 * 1024;  // most payload of one Data frame

class FrameOutput {
 public:
  // Both are called from the event loop, never from within a call of the owner's.
  class Owner {
   public:
    // Something was written: Room may have grown, owed and idle may have changed.
    virtual void OnOutputProgress() = 0;
    // Nobody will read what is still queued.
    virtual void OnOutputBroken() = 0;

   protected:
    ~Owner() = default;
  };

  // Takes `fd` over, which does not block. `owner` is not owned.
  FrameOutput(asio::io_context& io, int fd, Owner* owner);

  // Where the payload of a Data frame may be put now; empty: not before OnOutputProgress, or before the line
  // has carried more.
  std::span<char> Room();
  // The same for a connection that has much to say: not while the stream takes no more. When interactive,
  // little at a time and only once all that was queued is written.
  std::span<char> BulkRoom();
  // Somebody waits for small answers, or nobody does any more.
  void SetInteractive(bool on);
  bool interactive() const { return interactive_; }
  // Queues the first `count` bytes of Room or BulkRoom as a Data frame.
  void AddData(std::uint32_t connection_id, std::size_t count);
  // Writes what was queued last without waiting for the event loop, if nothing lies ahead of it.
  void Hurry();
  // Queues a frame behind all others, room or no room.
  void AddControl(gxmod::ConnectionType type, std::uint32_t connection_id, std::string_view payload = {});
  // Tells the other side what has been received. While the stream takes no more, the last totals wait.
  void Acknowledge(const Acknowledgement& totals);
  LinePace& pace() { return pace_; }
  // Queues bytes that are no frame.
  void AddText(std::string_view text);

  // Bytes of control frames that found no room.
  std::size_t owed() const { return overflow_.size(); }
  // All is written.
  bool idle() const { return begin_ == end_ && overflow_.empty(); }

 private:
  void ScheduleFlush();
  void Flush();
  ssize_t WriteSome();
  void Refill();
  void WaitWritable();
  void Break();

  asio::io_context& io_;
  StreamDescriptor fd_;
  Owner* const owner_;
  const std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;  // of what is unwritten
  std::size_t end_ = 0;
  LinePace pace_;
  std::optional<Acknowledgement> acknowledgement_;  // waits
  std::string overflow_;  // comes after the buffer; no data is added while there is some
  bool flush_pending_ = false;
  bool blocked_ = false;  // the stream takes no more
  bool interactive_ = false;
  bool broken_ = false;
};

}  // namespace gxtool

#endif  // GX_PEER_FRAME_OUTPUT_H

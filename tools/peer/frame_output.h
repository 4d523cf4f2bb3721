// The outgoing half of the stream.
//
// Frames are built in the buffer from which they are written: a payload is read from its target directly behind
// its header, and many frames are sent with one write. At most one buffer of frames is queued ahead of a new
// frame, except for control frames (AddControl). SetInteractive shortens that queue while a user waits for
// small answers. When the other side acknowledges, no more data is added than the line carries.
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

inline constexpr std::size_t kDataBytes = 64 * 1024;  // maximum payload of a Data frame

class FrameOutput {
 public:
  // Both are called from the event loop, never from inside the owner's calls.
  class Owner {
   public:
    // Data was written, other than by FlushNow: Room may have grown, owed and idle may have changed.
    virtual void OnOutputProgress() = 0;
    // The queued data can no longer be sent.
    virtual void OnOutputBroken() = 0;

   protected:
    ~Owner() = default;
  };

  // Takes ownership of `fd`, which is non-blocking. `owner` is borrowed.
  FrameOutput(asio::io_context& io, int fd, Owner* owner);

  // The space for the payload of a Data frame; empty: wait for OnOutputProgress or for acknowledgements.
  std::span<char> Room();
  // The same for a connection with much data: empty while the stream is full. In interactive mode, small pieces
  // and only when the queue is empty.
  std::span<char> BulkRoom();
  // Turns interactive mode on or off: a user waits for small answers.
  void SetInteractive(bool on);
  bool interactive() const { return interactive_; }
  // Queues the first `count` bytes of Room or BulkRoom as a Data frame. FlushNow or FlushSoon sends it.
  void AddData(std::uint32_t connection_id, std::size_t count);
  // Writes what is queued, at once; what the stream does not take is left to FlushSoon.
  void FlushNow();
  // Writes what is queued together with what the rest of this pass of the event loop queues.
  void FlushSoon();
  // Queues a control frame behind all others, even without room.
  void AddControl(gxmod::ConnectionType type, std::uint32_t connection_id, std::string_view payload = {});
  // Tells the other side how much was received. While the stream is full, only the latest totals are kept.
  void Acknowledge(const Acknowledgement& totals);
  LinePace& pace() { return pace_; }
  // Queues bytes outside of a frame.
  void AddText(std::string_view text);

  // Bytes of control frames that did not fit into the buffer.
  std::size_t owed() const { return overflow_.size(); }
  // Everything is written.
  bool idle() const { return begin_ == end_ && overflow_.empty(); }

 private:
  void Flush();
  ssize_t WriteSome();
  void Refill();
  void WaitWritable();
  void Break();

  asio::io_context& io_;
  StreamDescriptor fd_;
  Owner* const owner_;
  const std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;  // start of the unwritten bytes
  std::size_t end_ = 0;
  LinePace pace_;
  std::optional<Acknowledgement> acknowledgement_;  // to be sent when the stream has room
  std::string overflow_;  // to be sent after the buffer; while it has bytes, no data is added
  bool flush_pending_ = false;
  bool blocked_ = false;  // the stream is full
  bool interactive_ = false;
  bool broken_ = false;
};

}  // namespace gxtool

#endif  // GX_PEER_FRAME_OUTPUT_H

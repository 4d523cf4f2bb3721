// The receiving half of the plugin stream: passes bytes from a descriptor to the module, without the frames
// that are not for it.
#ifndef GX_SSH_PLUGIN_INPUT_H
#define GX_SSH_PLUGIN_INPUT_H

#include <gxmod/frames.h>
#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/descriptor.h"
#include "common/spin.h"
#include "gx-ssh/intake.h"
#include "gx-ssh/stop_signal.h"

namespace gxtool {

// Reads ahead, so that small frames do not cost two system calls each, and checks every frame header. During
// interactive traffic (small messages with fast replies), Read spins briefly before it sleeps.
// Threads: Read on one; everything else on any.
class PluginInput {
 public:
  // Called from inside Read, except for the calls that Intake::Handler describes.
  class Handler : public Intake::Handler {
   public:
    // A frame has started to arrive. True: pass it to the module. False: remove it, see OnTaken.
    virtual bool Passes(const gxmod::FrameHeader& header) = 0;
    // A removed frame, other than an urgent one, has arrived, with its payload or the first kTakenPayloadBytes
    // of it.
    virtual void OnTaken(const gxmod::FrameHeader& header, std::string_view payload) = 0;

   protected:
    ~Handler() = default;
  };
  static constexpr std::size_t kTakenPayloadBytes = 256;

  // `fd` is non-blocking; descriptor, `stop` and `handler` outlive the reader. `received`: bytes that were
  // already read from `fd`. `acknowledges`: see Intake. `takes_inserts`: InsertClose is used.
  PluginInput(int fd, const StopSignal& stop, Handler& handler, std::string_view received,
              bool acknowledges = false, bool takes_inserts = false);

  // Blocks until at least one byte is available. Returns the number of bytes in `data`, 0 at the end. Removed
  // frames never appear in `data`, not even in part.
  std::size_t Read(void* data, std::size_t length);

  // Inserts a Close of that connection before the next frame, as if the far side had sent it. Wakes a Read that
  // waits for a frame.
  void InsertClose(std::uint32_t connection);

  // Call before a block of `length` bytes is sent in the other direction.
  void OnSending(std::size_t length);

  // Why Read returned 0, for a message.
  const std::string& end_reason() const { return end_reason_; }

  // See Intake.
  std::chrono::milliseconds silence() const { return intake_.silence(); }
  void Close() { intake_.Close(); }

  static constexpr std::size_t kBufferBytes = 256 * 1024;

 private:
  bool NextFrame();  // decides on the frame at the front of the buffer, if one is there
  void TakeInserted();
  bool Buffer(std::size_t bytes);  // makes at least that many bytes available
  bool Skip(std::uint64_t bytes);  // drops that many bytes
  std::size_t ReadInTurn(void* data, std::size_t length);
  std::size_t Receive(std::span<iovec> parts);
  void Wait();
  bool ComesSoon();  // without sleeping
  std::size_t buffered() const { return end_ - begin_; }

  const int fd_;
  const StopSignal& stop_;
  Handler& handler_;
  Intake intake_;
  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t passing_ = 0;  // bytes of the current frame that are still to be passed to the module
  bool drained_ = false;       // the descriptor had no more bytes
  Spin spin_;
  int conversation_ = 0;  // how interactive the traffic is, see kLikely
  std::string end_reason_;
  bool between_frames_ = false;  // Read waits for a header

  std::atomic<bool> has_inserted_{false};
  std::mutex insert_mutex_;              // guards the next two
  std::vector<std::uint32_t> inserted_;  // connections whose Close is to be inserted
  Pipe wake_;                            // contains a byte while inserted_ is not empty

  std::atomic<bool> sends_little_{true};  // the last block in the other direction was small
};

}  // namespace gxtool

#endif  // GX_SSH_PLUGIN_INPUT_H

// The receiving half of the plugin stream: bytes from a descriptor, without the frames that are not the
// module's.
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
#include "gx-ssh/intake.h"
#include "gx-ssh/stop_signal.h"

namespace gxtool {

// Reads ahead, so that small frames do not cost two system calls each, and looks at every header that passes.
// Within a conversation, little that is answered soon, Read waits awake for a moment before it sleeps.
// Threads: Read on one; everything else on any.
class PluginInput {
 public:
  // Called from inside Read, but for what an intake calls.
  class Handler : public Intake::Handler {
   public:
    // A frame has begun to arrive. True: the module gets it. False: it is taken out, see OnTaken.
    virtual bool Passes(const gxmod::FrameHeader& header) = 0;
    // A frame that was taken out, and is not an urgent one, has come: its payload, or the first
    // kTakenPayloadBytes of it.
    virtual void OnTaken(const gxmod::FrameHeader& header, std::string_view payload) = 0;

   protected:
    ~Handler() = default;
  };
  static constexpr std::size_t kTakenPayloadBytes = 256;

  // `fd` is non-blocking; descriptor, `stop` and `handler` outlive the reader. `received` are bytes of the
  // stream that have been read from `fd` already. `acknowledges`: as with the intake. `takes_inserts`:
  // InsertClose is used.
  PluginInput(int fd, const StopSignal& stop, Handler& handler, std::string_view received,
              bool acknowledges = false, bool takes_inserts = false);

  // Blocks until at least one byte is there; returns how many are in `data`, 0 at the end. A frame that is
  // taken out is never seen, not even in part.
  std::size_t Read(void* data, std::size_t length);

  // Puts a Close of that connection, as if the far side had sent it, in front of the next frame. A Read that
  // waits for one returns with it.
  void InsertClose(std::uint32_t connection);

  // A block of that many bytes is about to go the other way.
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
  bool Buffer(std::size_t bytes);  // makes at least that many available
  bool Skip(std::uint64_t bytes);  // drops that many
  std::size_t ReadInTurn(void* data, std::size_t length);
  std::size_t Receive(std::span<iovec> parts);
  void Wait();
  bool ComesBefore(std::chrono::steady_clock::time_point end) const;
  std::size_t buffered() const { return end_ - begin_; }

  const int fd_;
  const StopSignal& stop_;
  Handler& handler_;
  Intake intake_;
  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t passing_ = 0;  // bytes of the current frame that the module has still to get
  bool drained_ = false;       // nothing was left to read
  int conversation_ = 0;       // how much what comes looks like one
  std::string end_reason_;
  bool between_frames_ = false;  // Read waits for a header

  std::atomic<bool> has_inserted_{false};
  std::mutex insert_mutex_;              // guards the next two
  std::vector<std::uint32_t> inserted_;  // connections whose Close is to be read
  Pipe wake_;                            // holds a byte while there are some

  std::atomic<bool> sends_little_{true};  // at a time, the other way
};

}  // namespace gxtool

#endif  // GX_SSH_PLUGIN_INPUT_H

// The sending half of the plugin stream: frames to a descriptor, in order and uncut.
#ifndef GX_SSH_PLUGIN_OUTPUT_H
#define GX_SSH_PLUGIN_OUTPUT_H

#include <gxmod/frames.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/frame_reader.h"
#include "common/line_pace.h"
#include "gx-ssh/stop_signal.h"

namespace gxtool {

// A lone frame is written by the caller itself, at once. Frames of a size that more of them follow are
// collected first, until one system call is worth its price, the flow ebbs, or a moment is over. What a slow
// far side does not take, and what has lingered, is sent by a thread of the writer's, unless Write waits for
// room and does it itself. Once the far side acknowledges what comes, no more goes out than the line carries.
// Threads: Write one call at a time, everything else on any.
class PluginOutput : FrameReader::Handler {
 public:
  class Handler {
   public:
    // A frame has begun to go out, at least its header. From inside Write.
    virtual void OnFrameSent(const gxmod::FrameHeader& header) = 0;
    // The descriptor takes no more, `reason` for a message. Once; on a caller's thread or the writer's own.
    virtual void OnWriteFailed(const std::string& reason) = 0;

   protected:
    ~Handler() = default;
  };

  // `fd` is non-blocking; descriptor, `stop` and `handler` outlive the writer.
  PluginOutput(int fd, StopSignal& stop, Handler& handler);
  virtual ~PluginOutput();

  // Takes the whole block, which may begin and end anywhere in a frame. Blocks while kQueueBytes or more wait,
  // and until the line has room. A Data frame that is long for the line goes as several.
  // False: closed, finished or broken.
  bool Write(const void* data, std::size_t length);

  // Puts a whole frame between those of Write, as soon as none of them is cut by it. Never blocks.
  void Insert(std::string_view frame);
  // The same for an answer that can be spared: dropped while kQueueBytes or more wait, which answer as well.
  void Answer(std::string_view frame);

  // Asks the far side for a sign of life.
  void Ping();
  // The pong has come.
  void OnPong(std::string_view payload);
  // Tells the far side what has come from it; `rides`: in front of the next Write, which follows at once. While
  // the descriptor takes no more, the last totals wait.
  void Acknowledge(const Acknowledgement& totals, bool rides);
  // The far side has told the same. False: that cannot be.
  bool OnAcknowledgement(const Acknowledgement& totals);
  LinePace::View line() const;

  // Refuses further calls of Write, and one that waits for room as soon as there is some, and puts `frame` (may
  // be empty) behind what is queued. True: everything went out within `limit`.
  bool Finish(std::string_view frame, std::chrono::milliseconds limit);

  // Makes blocked and later calls of Write fail. Call it after the stop signal was raised.
  void Close();

  static constexpr std::size_t kQueueBytes = 128 * 1024;

 private:
  void OnFrame(const gxmod::FrameHeader& header) override { begun_.push_back(header); }
  void OnPayload(std::string_view) override {}
  void OnFrameEnd() override {}

  using Lock = std::unique_lock<std::mutex>;

  bool closed() const { return broken_ || stop_.raised(); }
  std::size_t queued() const { return queue_.size() - sent_; }
  bool Put(Lock& lock, std::string_view bytes);
  bool PutInPieces(Lock& lock, const gxmod::FrameHeader& header, std::string_view payload);
  bool MustWait(std::size_t bytes) const;
  void PutBetween(Lock& lock, std::string_view frame);
  void Defer();  // leaves what is queued to a later call, or to the writer's own thread
  void Send();   // what is queued, as far as the descriptor takes it
  void WaitForRoom(Lock& lock, std::size_t bytes);
  void Flush();  // the writer's own thread
  void WaitForDescriptor(Lock& lock);
  void LookAtRate();
  void Linger(Lock& lock);
  // Tells the handler, without the lock, of a failure that is new. False: the descriptor takes no more.
  bool Report(Lock& lock);

  const int fd_;
  StopSignal& stop_;
  Handler& handler_;

  FrameReader scanner_{this};              // of what Write brings; only in Write
  std::vector<gxmod::FrameHeader> begun_;  // in this call of Write; only there

  mutable std::mutex mutex_;          // guards what follows
  std::condition_variable sent_all_;  // nothing is queued, or nothing is taken any more
  std::condition_variable work_;      // something is queued that nobody looks after
  std::condition_variable line_;      // has carried something, or whoever waits for that need not any more
  LinePace pace_;
  std::string acknowledgement_;  // waits
  std::string queue_;            // bytes to send, from sent_ on
  std::size_t sent_ = 0;
  std::string inserts_;  // frames that wait for the end of the one that is being written
  bool between_frames_ = true;
  bool full_ = false;  // the descriptor, as far as is known
  std::uint64_t sent_ever_ = 0;
  bool fast_ = false;  // at the last look
  std::chrono::steady_clock::time_point looked_at_{};
  std::uint64_t sent_then_ = 0;
  bool writer_waits_ = false;  // in WaitForRoom, and looks after the queue
  bool deferred_ = false;      // since the writer's own thread last looked
  std::uint64_t sends_ = 0;    // calls of Send
  bool finished_ = false;
  bool broken_ = false;
  std::string failure_;  // why, until the handler has been told
  std::thread flusher_;
};

}  // namespace gxtool

#endif  // GX_SSH_PLUGIN_OUTPUT_H

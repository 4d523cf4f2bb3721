// The sending half of the plugin stream: writes frames to a descriptor, whole and in order.
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

// Write sends a short frame at once, on the calling thread. Long frames, which others usually follow, are
// batched for a short time. The flusher thread sends a batch whose time is up and bytes for which the
// descriptor had no room, except while a call of Write waits for room: that call sends them itself. Once the
// far side acknowledges, no more is sent than the line carries.
// Threads: Write one call at a time, everything else on any.
class PluginOutput : FrameReader::Handler {
 public:
  class Handler {
   public:
    // Called inside Write before the frame is queued, so before any answer to it can arrive.
    virtual void OnSendingFrame(const gxmod::FrameHeader& header) = 0;
    // Called inside Write after the frame is queued: frames that the handler inserts follow it.
    virtual void OnFrameQueued(const gxmod::FrameHeader& header) = 0;
    // The descriptor accepts no more data; `reason` is for a message. Called once, on a caller's thread or on
    // the flusher.
    virtual void OnWriteFailed(const std::string& reason) = 0;

   protected:
    ~Handler() = default;
  };

  // `fd` is non-blocking; descriptor, `stop` and `handler` outlive this object. `now` measures the line.
  PluginOutput(int fd, StopSignal& stop, Handler& handler, LinePace::Now now = &LinePace::Clock::now);
  virtual ~PluginOutput();

  // Takes the whole block, which may begin and end inside a frame. Blocks while more is queued than the
  // descriptor takes in a moment, and until the line has room. Splits a Data frame that is too long for the
  // line. Returns false when closed or finished, or when the descriptor has failed.
  bool Write(const void* data, std::size_t length);

  // Queues a whole frame, after the current frame of Write. Never blocks.
  void Insert(std::string_view frame);
  // Inserts the answer to a ping, or drops it while kQueueBytes or more are queued: the far side sees from
  // these bytes, too, that this side is alive.
  void Answer(std::string_view frame);

  // Sends a ping.
  void Ping();
  // Handles the pong.
  void OnPong(std::string_view payload);
  // Sends an acknowledgement; with `rides` it is sent together with the next Write, which follows at once.
  // While the descriptor is full, only the latest totals are kept.
  void Acknowledge(const Acknowledgement& totals, bool rides);
  // Handles the far side's acknowledgement. Returns false when it is impossible.
  bool OnAcknowledgement(const Acknowledgement& totals);
  LinePace::View line() const;

  // Makes later calls of Write fail, and a waiting one at the latest when the descriptor has room. Queues
  // `frame` (may be empty). Returns true when everything was sent within `limit`.
  bool Finish(std::string_view frame, std::chrono::milliseconds limit);

  // Makes blocked and later calls of Write fail. Call it after raising the stop signal.
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
  void Defer();  // leaves the queue to a later call or the flusher
  void Send();   // sends the queue, as far as the descriptor accepts it
  void WaitForRoom(Lock& lock, std::size_t bytes);
  void Flush();  // runs on the flusher thread
  void WaitForDescriptor(Lock& lock);
  void LookAtReader();
  void LookAtRate();
  void Linger(Lock& lock);
  // Reports a new failure to the handler, without holding the lock. Returns false when the descriptor accepts
  // no more data.
  bool Report(Lock& lock);

  const int fd_;
  StopSignal& stop_;
  Handler& handler_;
  const LinePace::Now now_;

  FrameReader scanner_{this};              // for the data of Write; used only there
  std::vector<gxmod::FrameHeader> begun_;  // frames that started in this call of Write; used only there

  mutable std::mutex mutex_;          // guards the members below
  std::condition_variable sent_all_;  // the queue is empty or can no longer be sent
  std::condition_variable work_;      // the queue needs the flusher
  std::condition_variable line_;      // the line has room again, or waiting for it has ended
  LinePace pace_{now_};
  std::string acknowledgement_;  // to be sent when the descriptor has room
  std::string queue_;            // bytes to send, from sent_ on
  std::size_t sent_ = 0;
  std::string inserts_;  // frames to send after the current one
  bool between_frames_ = true;
  bool full_ = false;  // the last write filled the descriptor
  std::uint64_t sent_ever_ = 0;
  std::size_t most_queued_ = kQueueBytes;  // more blocks Write
  LinePace::Clock::time_point looked_at_{};
  std::uint64_t sent_then_ = 0;
  int shares_ = 1;             // the socket and the queue hold so many times what they should
  int waits_ = 0;              // for the descriptor, in this round
  int empty_ = 0;              // those of them that ended with an empty socket
  bool writer_waits_ = false;  // a caller is in WaitForRoom and sends the queue
  bool deferred_ = false;      // a frame was batched since the flusher last checked
  std::uint64_t sends_ = 0;    // number of calls of Send
  bool finished_ = false;
  bool broken_ = false;
  std::string failure_;  // the reason, until the handler was told
  std::thread flusher_;
};

}  // namespace gxtool

#endif  // GX_SSH_PLUGIN_OUTPUT_H

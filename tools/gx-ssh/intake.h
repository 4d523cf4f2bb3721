// Bytes from the carrier, and what must not wait until the module asks for them.
#ifndef GX_SSH_INTAKE_H
#define GX_SSH_INTAKE_H

#include <gxmod/frames.h>
#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>

#include "common/descriptor.h"
#include "common/frame_reader.h"
#include "common/receipts.h"
#include "gx-ssh/stop_signal.h"

namespace gxtool {

// The module does not read while one of its clients takes nothing. Acknowledgements and pings that come
// meanwhile are needed all the same: without them what the module writes would wait as well. So a thread of the
// intake's reads when the reader has not come for a moment, and holds what it gets until the reader is back.
// How much that may become is what the far side was permitted to send. With a far side that knows of no
// permission there is no such thread.
//
// The reader itself reads straight into its own memory as long as nothing is held.
// Threads: Turn and what it guards on one, the reader's; everything else on any.
class Intake : FrameReader::Handler {
 public:
  using Clock = std::chrono::steady_clock;

  // Called on the reader's thread or that of the intake, one call at a time, within a call of Read or none;
  // OnAcknowledge also within OnSending.
  class Handler {
   public:
    // A frame that does not wait has come: its payload, or the first kUrgentPayloadBytes of it.
    virtual void OnUrgent(const gxmod::FrameHeader& header, std::string_view payload) = 0;
    // The far side is to be told that so much has come; `rides`: with the block of OnSending. Totals never
    // fall from one call to the next.
    virtual void OnAcknowledge(const Acknowledgement& totals, bool rides) = 0;

   protected:
    ~Handler() = default;
  };
  static constexpr std::size_t kUrgentPayloadBytes = 256;

  // True: such a frame goes to OnUrgent as soon as it comes. The reader gets its bytes, too.
  static bool IsUrgent(gxmod::ConnectionType type);

  // `fd` is non-blocking; descriptor, `stop` and `handler` outlive the intake. `received`: bytes of the stream
  // that have been read from `fd` already. `acknowledges`: the far side knows of acknowledgements.
  Intake(int fd, const StopSignal& stop, Handler& handler, std::string_view received, bool acknowledges);
  ~Intake();

  // The stream belongs to the reader.
  class Turn {
   public:
    explicit Turn(Intake& intake) : intake_(intake) { intake_.Enter(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() { intake_.Leave(); }

   private:
    Intake& intake_;
  };

  // Within a turn: like readv, but what is held comes first.
  ssize_t Read(std::span<iovec> parts);
  bool holds() const { return held_.size() > held_at_; }
  // Within a turn: a wait for bytes begins, ends.
  void BeginToWait();
  // Sleeps until there are bytes, `wake` (-1: none) can be read, the stop signal is raised or, perhaps, before.
  void Sleep(int wake);
  void EndToWait() { waiting_since_ms_ = 0; }

  // A block goes the other way, and may take an acknowledgement along.
  void OnSending();

  // For how long somebody has been waiting for bytes that do not come. Zero while nobody reads.
  std::chrono::milliseconds silence() const;

  // Ends the thread, after the stop signal was raised. Once for all; the destructor does it as well.
  void Close();

 private:
  using Lock = std::unique_lock<std::mutex>;

  void OnFrame(const gxmod::FrameHeader& header) override;
  void OnPayload(std::string_view piece) override;
  void OnFrameEnd() override;

  void Enter();
  void Leave();
  void Came(std::string_view bytes) { scanner_.Feed(bytes); }
  std::optional<Clock::time_point> Acknowledge();
  std::optional<Clock::time_point> TellReceipts();
  void Arm();
  void Watch();  // the thread
  void Look(std::uint64_t turns_before);
  void Hold();
  bool ReadToHold();

  const int fd_;
  const StopSignal& stop_;
  Handler& handler_;
  const bool acknowledges_;

  std::mutex turn_mutex_;  // guards what follows, and the descriptor; the reader has it for its whole turn
  FrameReader scanner_{this};
  gxmod::FrameHeader frame_;
  std::string urgent_;       // payload so far
  std::size_t counted_ = 0;  // bytes that came and have not been entered in receipts_
  std::string held_;         // from held_at_ on
  std::size_t held_at_ = 0;
  bool begun_ = false;               // a first turn has been
  std::int64_t quiet_since_ms_ = 0;  // the first wait behind the last byte

  std::mutex receipts_mutex_;  // guards the next one, and the order of acknowledgements
  Receipts receipts_;

  std::atomic<std::int64_t> waiting_since_ms_{0};  // of the monotonic clock; 0: not waiting
  std::atomic<bool> inside_{false};                // the reader has its turn, or waits for it
  std::atomic<std::uint64_t> turns_{0};
  std::atomic<bool> holding_{false};
  Pipe wake_;  // for the thread, while it holds

  std::mutex mutex_;
  std::condition_variable changed_;
  std::atomic<bool> armed_{false};  // set with mutex_: the thread looks now and then
  bool closed_ = false;             // guarded by mutex_
  std::thread thread_;
};

}  // namespace gxtool

#endif  // GX_SSH_INTAKE_H

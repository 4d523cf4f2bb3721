// Reads the carrier's bytes, and handles urgent frames even while the module does not read.
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

// The module stops reading while one of its clients takes no data. Acknowledgements and pings must be handled
// meanwhile: otherwise the module's writes would stop as well. So when the reader has paused for kLookInterval,
// the intake's thread reads instead and holds the bytes until the reader is back. The permission that was sent
// to the far side bounds them. While the reader waits, the thread sends late acknowledgements. The thread
// exists only when the far side supports acknowledgements.
//
// While no bytes are held, the reader reads directly into its own memory.
// Threads: Turn, and the operations within a turn, on the reader's; everything else on any.
class Intake : FrameReader::Handler {
 public:
  using Clock = std::chrono::steady_clock;

  // Each is called one call at a time, within a turn or on the intake's thread, OnAcknowledge also inside
  // OnSending.
  class Handler {
   public:
    // An urgent frame has arrived, with its payload or the first kUrgentPayloadBytes of it.
    virtual void OnUrgent(const gxmod::FrameHeader& header, std::string_view payload) = 0;
    // Send this acknowledgement to the far side; `rides`: together with the block of OnSending. Totals never
    // decrease.
    virtual void OnAcknowledge(const Acknowledgement& totals, bool rides) = 0;

   protected:
    ~Handler() = default;
  };
  static constexpr std::size_t kUrgentPayloadBytes = 256;

  // True for frame types that go to OnUrgent at once. The reader gets these frames, too.
  static bool IsUrgent(gxmod::ConnectionType type);

  // `fd` is non-blocking; descriptor, `stop` and `handler` outlive the intake. `received`: bytes that were
  // already read from `fd`. `acknowledges`: the far side supports acknowledgements.
  Intake(int fd, const StopSignal& stop, Handler& handler, std::string_view received, bool acknowledges);
  ~Intake();

  // Gives the reader the descriptor for its lifetime.
  class Turn {
   public:
    explicit Turn(Intake& intake) : intake_(intake) { intake_.Enter(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() { intake_.Leave(); }

   private:
    Intake& intake_;
  };

  // Within a turn: like readv, but returns held bytes first.
  ssize_t Read(std::span<iovec> parts);
  bool holds() const { return held_.size() > held_at_; }
  // Within a turn: the reader starts and stops waiting for bytes.
  void BeginToWait(Clock::time_point now);
  // Sleeps until bytes arrive, `wake` (-1: none) is readable or the stop signal is raised. May return earlier.
  void Sleep(int wake);
  void EndToWait() { waiting_since_ms_ = 0; }

  // Call before a block is sent in the other direction: an acknowledgement may be sent with it.
  void OnSending();

  // How long a read has been waiting for bytes that do not arrive. Zero while nothing reads.
  std::chrono::milliseconds silence() const;

  // Ends the thread, after the stop signal was raised. The destructor calls it, too.
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
  std::optional<Clock::time_point> TellReceipts(Clock::time_point now);
  void Arm();
  void Watch();  // runs on the thread
  void Look(std::uint64_t turns_before);
  void Hold();
  bool ReadToHold();

  const int fd_;
  const StopSignal& stop_;
  Handler& handler_;
  const bool acknowledges_;

  std::mutex turn_mutex_;  // for the members below and the descriptor; held by the reader for a turn
  FrameReader scanner_{this};
  gxmod::FrameHeader frame_;
  std::string urgent_;       // payload so far
  std::size_t counted_ = 0;  // received bytes that are not yet in receipts_
  std::string held_;         // held bytes, from held_at_ on
  std::size_t held_at_ = 0;
  bool begun_ = false;               // the first turn has started
  std::int64_t quiet_since_ms_ = 0;  // start of the first wait after the last byte

  std::mutex receipts_mutex_;  // guards the next one, and the order of acknowledgements
  Receipts receipts_;

  std::atomic<std::int64_t> waiting_since_ms_{0};  // monotonic clock; 0: not waiting
  std::atomic<bool> inside_{false};                // the reader has its turn, or waits for it
  std::atomic<std::uint64_t> turns_{0};
  std::atomic<bool> holding_{false};
  Pipe wake_;  // wakes the thread while it holds bytes

  std::mutex mutex_;
  std::condition_variable changed_;
  std::atomic<bool> armed_{false};  // set with mutex_: the thread checks at intervals
  bool closed_ = false;             // guarded by mutex_
  std::thread thread_;
};

}  // namespace gxtool

#endif  // GX_SSH_INTAKE_H

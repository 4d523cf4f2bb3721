// The event loop of Peer: incoming frames, outgoing frames and the connections between them. Decisions are in
// other classes: Admission (who may connect where), ReadScheduler (the order of reading), Shutdown (the end).
// Threads: Run's thread, except for RequestStop.
#ifndef GX_PEER_SESSION_H
#define GX_PEER_SESSION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/borrowed_fd.h"
#include "common/frame_reader.h"
#include "common/ready_line.h"
#include "common/receipts.h"
#include "peer/admission.h"
#include "peer/asio_types.h"
#include "peer/connection.h"
#include "peer/event_loop.h"
#include "peer/frame_output.h"
#include "peer/keepalive.h"
#include "peer/peer.h"
#include "peer/read_scheduler.h"
#include "peer/resolver.h"
#include "peer/shutdown.h"
#include "peer/stream_reader.h"

namespace gxtool {

class PeerSession final : private StreamReader::Owner,
                          private FrameReader::Handler,
                          private FrameOutput::Owner,
                          private Connection::Owner,
                          private ReadScheduler::Owner,
                          private Keepalive::Owner {
 public:
  PeerSession(PeerOptions options, int read_fd, int write_fd);

  int Run();
  void RequestStop();

 private:
  using Phase = Shutdown::Phase;
  using ConnectionPtr = std::shared_ptr<Connection>;

  void OnBytes(std::string_view bytes) override;
  void OnEnd() override;

  void OnFrame(const gxmod::FrameHeader& header) override;
  void OnPayload(std::string_view piece) override;
  void OnFrameEnd() override;

  void OnOutputProgress() override;
  void OnOutputBroken() override;

  void OnOpen(Connection& connection) override;
  void OnOpenFailed(Connection& connection, asio::error_code error) override;
  void OnReadable(Connection& connection) override;
  void OnWritten(Connection& connection) override;
  void OnQueued(Connection& connection, std::ptrdiff_t delta) override;
  void OnGone(Connection& connection) override;

  void OnTargetEnd(Connection& connection) override;
  void OnDataQueued() override;
  bool IsAlone() const override { return live_.size() == 1; }

  void OnQuiet() override;
  void OnSilent() override;
  bool IsDeaf() const override { return input_.paused(); }

  // Removes the ready line from the front of `bytes`.
  void Greet(std::string_view* bytes);
  void FailGreeting(const std::string& why);
  void Stop();
  void WatchSignals();
  void WaitForSignal();

  // Handlers of frames.
  void OnControlFrame();
  void OnAcknowledgement();
  void OnFill();
  void EndOfInput();
  void Connect(std::uint32_t id, const std::string& text);
  void SendClose(std::uint32_t id);
  // Tells the other side that a connection was never opened, with the reason, or that it was reset and may have
  // lost bytes, with an empty reason.
  void SendReset(std::uint32_t id, const std::string& why_not_opened);
  void OpenTarget(Connection& connection, const Destination& destination);
  void OnResolved(Connection& connection, const HostPort& target, const LookupResult& result);
  void AnswerTest();

  // Sends data while the stream has room: of the targets, and then what a fill frame asks for.
  void SendData();

  // These remove a connection from live_. End, Drop and DropUnopened also tell the other side.
  void End(Connection& connection, const std::string& why);
  void StartClosing(Connection& connection, const std::string& why);
  void Drop(Connection& connection, const std::string& why);
  void DropUnopened(Connection& connection, const std::string& why);
  void Forget(Connection& connection);

  // Allows the other side to send or stops it: by its permission, or by not reading if it ignores permissions.
  void PauseOrResumeInput();
  // Sends an acknowledgement if it is due; otherwise sets the timer for it.
  void Acknowledge();

  // One timer checks all deadlines; it runs only while there are some.
  void NeedTick();
  void OnTick();
  void CheckConnection(Connection& connection, Clock::time_point now);

  void StopAdmitting();
  void Lose(LogLevel level, const std::string& why);
  void CheckPhase(Clock::time_point now);
  bool IsUnderWay(Clock::time_point now) const;
  // Ends every connection and sends a goodbye, unless the link was lost.
  void EndAll(std::string_view reason);

  void Log(LogLevel level, const std::string& line) const;
  // Logs what the other side causes and can repeat at will: as a warning for the first hundred times, then at a
  // lower level.
  void Complain(const std::string& line);

  const PeerOptions options_;
  const BorrowedFd read_fd_;
  const BorrowedFd write_fd_;
  asio::io_context io_{1};
  EventLoop loop_{io_};
  StreamReader input_;
  FrameOutput output_;
  Keepalive keepalive_;
  Timer tick_;
  bool tick_armed_ = false;
  Resolver resolver_;
  Admission admission_;
  ReadScheduler scheduler_{output_, loop_, *this};
  asio::signal_set signals_{io_};
  ReadyLineFinder greeting_{Side::kHost};

  FrameReader frames_{this};
  gxmod::FrameHeader frame_;              // the frame that is being read
  std::string text_;                      // its payload, unless it is data; truncated to kTextBytes
  ConnectionPtr data_connection_;         // receives the frame's payload, if it is data
  std::vector<ConnectionPtr> gathering_;  // have gathered bytes

  std::unordered_map<std::uint32_t, ConnectionPtr> live_;  // known to the other side
  ClosingConnections closing_;
  std::uint64_t fill_ = 0;     // bytes that a fill frame asks for
  std::size_t queued_ = 0;     // bytes queued for all targets
  std::size_t over_mark_ = 0;  // connections with too many bytes queued for their target
  bool holds_ = false;         // the other side must not send more
  Clock::time_point holds_since_;
  Receipts receipts_;
  Timer receipts_timer_;
  bool receipts_timer_armed_ = false;
  bool line_moved_ = false;  // the other side has received something
  bool doubted_ = false;     // it sent an impossible acknowledgement

  Shutdown shutdown_;
  std::uint64_t complaints_ = 0;
  int result_ = kPeerEnded;
};

}  // namespace gxtool

#endif  // GX_PEER_SESSION_H

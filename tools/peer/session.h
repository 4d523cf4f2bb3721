// The event loop behind Peer: frames in, frames out, connections in between.
//
//   phase      entered when                              left when
//   kGreeting  constructed, unless raw                   the ready line has come; as kRunning
//   kRunning   the ready line has come; constructed raw  the input ends; a stop is asked for; the link is lost
//   kDraining  the input has ended; a stop was asked for nothing is under way any more; its time is over
//   kEnding    every connection was told to close        all is written and closed; its time is over
//
// Threads: all on the one of Run, but RequestStop.
#ifndef GX_PEER_SESSION_H
#define GX_PEER_SESSION_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "link/borrowed_fd.h"
#include "link/frame_reader.h"
#include "link/ready_line.h"
#include "peer/asio_types.h"
#include "peer/connection.h"
#include "peer/event_loop.h"
#include "peer/frame_output.h"
#include "peer/keepalive.h"
#include "peer/peer.h"
#include "peer/resolver.h"
#include "peer/stream_reader.h"

namespace gxtool {

class PeerSession final : private StreamReader::Owner,
                          private FrameReader::Handler,
                          private FrameOutput::Owner,
                          private Connection::Owner,
                          private Keepalive::Owner {
 public:
  PeerSession(PeerOptions options, int read_fd, int write_fd);

  int Run();
  void RequestStop();

 private:
  enum class Phase { kGreeting, kRunning, kDraining, kEnding };
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

  void OnQuiet() override;
  void OnSilent() override;
  bool IsDeaf() const override { return input_.paused(); }

  // Takes the ready line off the front of `bytes`.
  void Greet(std::string_view* bytes);
  void FailGreeting(const std::string& why);
  void Stop();
  void WatchSignals();
  void WaitForSignal();

  // What frames ask for.
  void OnControlFrame();
  void EndOfInput();
  void Connect(std::uint32_t id, const std::string& text);
  std::optional<HostPort> JudgeTarget(std::uint32_t id, const std::string& text);
  std::string WhyNot(const HostPort& target) const;
  void Refuse(std::uint32_t id, const std::string& line);
  // `broken`: the connection does not end in order, and bytes may be lost.
  void SendClose(std::uint32_t id, bool broken);
  void OpenTarget(Connection& connection, const HostPort& target);
  void OnResolved(Connection& connection, const HostPort& target, const LookupResult& result);
  void AnswerTest();

  // Data from targets.
  void ReadTargets();
  void ReadInTurn(std::deque<ConnectionPtr>& readable, std::span<char> (FrameOutput::*room)());
  void GoFirst();
  void ReadTarget(const ConnectionPtr& connection, std::span<char> room);

  // Ways out of live_. End and Drop tell the other side.
  void End(Connection& connection, const std::string& why);
  void StartClosing(Connection& connection, const std::string& why);
  void Drop(Connection& connection, const std::string& why);
  void AbortOldestClosing();

  void PauseOrResumeInput();

  // Deadlines are kept by one timer, which runs only while there are some.
  void NeedTick();
  void OnTick();
  void CheckConnection(Connection& connection, Clock::time_point now);

  void StartDraining(Clock::duration time);
  void Lose(LogLevel level, const std::string& why);
  void CheckPhase(Clock::time_point now);
  bool IsWorking() const { return phase_ == Phase::kGreeting || phase_ == Phase::kRunning; }
  bool NothingUnderWay(Clock::time_point now) const;
  // Ends every connection and says goodbye, unless the link was lost.
  void EndAll(std::string_view reason);

  void Log(LogLevel level, const std::string& line) const;

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
  asio::signal_set signals_{io_};
  ReadyLineFinder greeting_{Side::kHost};

  FrameReader frames_{this};
  gxmod::FrameHeader frame_;              // the one being read
  std::string text_;                      // its payload, unless it is data; cut at kTextBytes
  ConnectionPtr data_connection_;         // to which its payload goes, if it is data for one
  std::vector<ConnectionPtr> gathering_;  // have gathered bytes

  std::unordered_map<std::uint32_t, ConnectionPtr> live_;  // known to the other side
  std::deque<ConnectionPtr> closing_;                      // not any more; in the order of close_until
  std::deque<ConnectionPtr> interactive_;                  // readable, in the order of their turns
  std::deque<ConnectionPtr> readable_;                     // those that have more to say
  Clock::time_point interactive_until_;
  std::size_t queued_ = 0;     // for all targets, bytes
  std::size_t over_mark_ = 0;  // connections that owe their target too much
  Clock::time_point paused_since_;

  bool stop_requested_ = false;
  bool input_ended_ = false;
  Phase phase_;
  Clock::time_point phase_end_;
  int result_ = kPeerEnded;
};

}  // namespace gxtool

#endif  // GX_PEER_SESSION_H

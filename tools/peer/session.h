// The event loop behind Peer: frames in, frames out, connections in between.
//
//   phase      entered when                              left when
//   kRunning   constructed                               the input ends; a stop is asked for; the output breaks
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

#include "link/frame_reader.h"
#include "peer/asio_types.h"
#include "peer/borrowed_fd.h"
#include "peer/connection.h"
#include "peer/frame_output.h"
#include "peer/peer.h"
#include "peer/resolver.h"
#include "peer/stream_reader.h"

namespace gxtool {

class PeerSession final : private StreamReader::Owner,
                          private FrameReader::Handler,
                          private FrameOutput::Owner,
                          private Connection::Owner {
 public:
  PeerSession(PeerOptions options, int read_fd, int write_fd);

  int Run();
  void RequestStop();

 private:
  enum class Phase { kRunning, kDraining, kEnding };
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
  void OnQueued(Connection& connection, std::ptrdiff_t delta) override;
  void OnGone(Connection& connection) override;

  // What frames ask for.
  void OnControlFrame();
  void Connect(std::uint32_t id, const std::string& text);
  std::optional<HostPort> JudgeTarget(std::uint32_t id, const std::string& text);
  void Refuse(std::uint32_t id, const std::string& line);
  void OpenTarget(Connection& connection, const HostPort& target);
  void AnswerTest();

  // Data from targets.
  void ReadTargets();
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
  void CheckPhase(Clock::time_point now);
  bool NothingUnderWay(Clock::time_point now) const;
  void EndAll();

  void Log(LogLevel level, const std::string& line) const;

  const PeerOptions options_;
  const BorrowedFd read_fd_;
  const BorrowedFd write_fd_;
  asio::io_context io_{1};
  StreamReader input_;
  FrameOutput output_;
  Timer tick_;
  bool tick_armed_ = false;
  Resolver resolver_;

  FrameReader frames_{this};
  gxmod::FrameHeader frame_;              // the one being read
  std::string text_;                      // its payload, unless it is data; cut at kTextBytes
  ConnectionPtr data_connection_;         // to which its payload goes, if it is data for one
  std::vector<ConnectionPtr> gathering_;  // have gathered bytes

  std::unordered_map<std::uint32_t, ConnectionPtr> live_;  // known to the other side
  std::deque<ConnectionPtr> closing_;                      // not any more; in the order of close_until
  std::deque<ConnectionPtr> readable_;                     // in the order of their turns
  std::size_t queued_ = 0;                                 // for all targets, bytes
  std::size_t over_mark_ = 0;                              // connections that owe their target too much
  Clock::time_point paused_since_;

  bool stop_requested_ = false;
  bool input_ended_ = false;
  Phase phase_ = Phase::kRunning;
  Clock::time_point phase_end_;
  int result_ = kPeerEnded;
};

}  // namespace gxtool

#endif  // GX_PEER_SESSION_H

// The state of a session from its start to its end.
//
//   phase      entered when                              left when
//   kGreeting  constructed, unless raw                   the ready line has arrived; otherwise as kRunning
//   kRunning   ready line has arrived; constructed raw   the input ends; a stop is requested; the link is lost
//   kDraining  the input has ended; stop requested       nothing is under way; its time is over
//   kEnding    every connection was told to close        all is written and closed; its time is over
//
// Threads: the one that runs the io_context.
#ifndef GX_PEER_SHUTDOWN_H
#define GX_PEER_SHUTDOWN_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string_view>

#include "peer/connection.h"
#include "peer/peer.h"

namespace gxtool {

class Shutdown {
 public:
  enum class Phase { kGreeting, kRunning, kDraining, kEnding };
  // The next thing to do.
  enum class Step { kNothing, kGiveGreetingUp, kEndAll, kLeave };

  Shutdown(bool raw, const EndTimes& times) : phase_(raw ? Phase::kRunning : Phase::kGreeting), times_(times) {}

  Phase phase() const { return phase_; }
  // True until the session is stopped, ended or lost.
  bool IsWorking() const { return phase_ == Phase::kGreeting || phase_ == Phase::kRunning; }
  // True while frames are read.
  bool IsCarrying() const { return phase_ == Phase::kRunning || phase_ == Phase::kDraining; }
  // The reason that the other side is told.
  std::string_view reason() const { return stop_requested_ ? "stopped" : "end of input"; }
  bool input_ended() const { return input_ended_; }

  // Waits for the ready line; a `limit` of 0 means no limit.
  void Greet(std::chrono::milliseconds limit);
  void Run() { phase_ = Phase::kRunning; }
  // False when called a second time.
  bool RequestStop();
  void EndInput();
  void End();

  // The next step. `under_way`: work is pending (see kDraining); `done`: all is written and closed (see
  // kEnding).
  Step Next(Clock::time_point now, bool under_way, bool done) const;

 private:
  void Drain(Clock::duration time);

  Phase phase_;
  const EndTimes times_;
  bool stop_requested_ = false;
  bool input_ended_ = false;
  Clock::time_point end_ = Clock::time_point::max();  // end of the phase
};

// Connections that are closed for the other side, until their targets have taken all queued bytes and have
// ended, too. Each has a time limit, and their number is bounded.
class ClosingConnections {
 public:
  explicit ClosingConnections(std::size_t most) : most_(most) {}

  bool empty() const { return connections_.empty(); }
  // Closes the connection.
  void Add(const std::shared_ptr<Connection>& connection);
  // Called when a connection has ended by itself.
  void Remove(const Connection& connection);
  void AbortLate(Clock::time_point now);
  void AbortAll();

 private:
  void AbortOldest();

  const std::size_t most_;
  std::deque<std::shared_ptr<Connection>> connections_;  // in the order of close_until
};

}  // namespace gxtool

#endif  // GX_PEER_SHUTDOWN_H

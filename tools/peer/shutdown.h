// How far a session has come, and when it is over.
//
//   phase      entered when                              left when
//   kGreeting  constructed, unless raw                   the ready line has come; as kRunning
//   kRunning   the ready line has come; constructed raw  the input ends; a stop is asked for; the link is lost
//   kDraining  the input has ended; a stop was asked for nothing is under way any more; its time is over
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

namespace gxtool {

class Shutdown {
 public:
  enum class Phase { kGreeting, kRunning, kDraining, kEnding };
  // What is to be done now.
  enum class Step { kNothing, kGiveGreetingUp, kEndAll, kLeave };

  explicit Shutdown(bool raw) : phase_(raw ? Phase::kRunning : Phase::kGreeting) {}

  Phase phase() const { return phase_; }
  // Neither stopped nor ended nor lost.
  bool IsWorking() const { return phase_ == Phase::kGreeting || phase_ == Phase::kRunning; }
  // Frames are read.
  bool IsCarrying() const { return phase_ == Phase::kRunning || phase_ == Phase::kDraining; }
  // Why it ends in order, for the other side.
  std::string_view reason() const { return stop_requested_ ? "stopped" : "end of input"; }
  bool input_ended() const { return input_ended_; }

  // Waits for the ready line; a `limit` of 0 is none.
  void Greet(std::chrono::milliseconds limit);
  void Run() { phase_ = Phase::kRunning; }
  // False: this is the second time.
  bool RequestStop();
  void EndInput();
  void End();

  // The next step. `under_way`: something is, see kDraining; `done`: see kEnding.
  Step Next(Clock::time_point now, bool under_way, bool done) const;

 private:
  void Drain(Clock::duration time);

  Phase phase_;
  bool stop_requested_ = false;
  bool input_ended_ = false;
  Clock::time_point end_ = Clock::time_point::max();  // of the phase
};

// Connections of which the other side knows nothing any more, until their targets have taken what is queued and
// have ended, too. Each has its time, and there are at most so many.
class ClosingConnections {
 public:
  explicit ClosingConnections(std::size_t most) : most_(most) {}

  bool empty() const { return connections_.empty(); }
  // Closes it.
  void Add(const std::shared_ptr<Connection>& connection);
  // It has left by itself.
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

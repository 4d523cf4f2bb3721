#include "peer/shutdown.h"

#include <utility>

namespace gxtool {
namespace {

constexpr auto kCloseTime = std::chrono::seconds(5);  // for a target to take the queued bytes and to end

}  // namespace

void Shutdown::Greet(std::chrono::milliseconds limit) {
  if (limit.count() != 0) end_ = Clock::now() + limit;
}

bool Shutdown::RequestStop() {
  if (std::exchange(stop_requested_, true)) return false;
  if (IsWorking()) Drain(times_.stop);
  return true;
}

void Shutdown::EndInput() {
  input_ended_ = true;
  if (IsWorking()) Drain(times_.input_end);
}

void Shutdown::Drain(Clock::duration time) {
  phase_ = Phase::kDraining;
  end_ = Clock::now() + time;
}

void Shutdown::End() {
  phase_ = Phase::kEnding;
  end_ = Clock::now() + times_.last_frames;
}

Shutdown::Step Shutdown::Next(Clock::time_point now, bool under_way, bool done) const {
  switch (phase_) {
    case Phase::kGreeting:
      return now >= end_ ? Step::kGiveGreetingUp : Step::kNothing;
    case Phase::kRunning:
      return Step::kNothing;
    case Phase::kDraining:
      return now >= end_ || !under_way ? Step::kEndAll : Step::kNothing;
    case Phase::kEnding:
      return now >= end_ || done ? Step::kLeave : Step::kNothing;
  }
  return Step::kNothing;
}

void ClosingConnections::Add(const std::shared_ptr<Connection>& connection) {
  connection->close_until = Clock::now() + kCloseTime;
  connections_.push_back(connection);
  connection->Close();
  // Targets that never end must not accumulate.
  if (connections_.size() > most_) AbortOldest();
}

void ClosingConnections::Remove(const Connection& connection) {
  std::erase_if(connections_, [&](const auto& entry) { return entry.get() == &connection; });
}

void ClosingConnections::AbortLate(Clock::time_point now) {
  while (!connections_.empty() && connections_.front()->close_until <= now) AbortOldest();
}

void ClosingConnections::AbortAll() {
  while (!connections_.empty()) AbortOldest();
}

void ClosingConnections::AbortOldest() {
  connections_.front()->Abort();
  connections_.pop_front();
}

}  // namespace gxtool

#include "peer/read_scheduler.h"

#include <utility>

namespace gxtool {
namespace {

constexpr auto kInteractiveTime = std::chrono::seconds(1);  // after a small answer: a pause in typing

}  // namespace

void ReadScheduler::Add(Connection& connection) {
  (connection.interactive() ? interactive_ : bulk_).push_back(connection.shared_from_this());
  Run();
}

void ReadScheduler::Run() {
  if (output_.interactive() && Clock::now() >= interactive_until_) output_.SetInteractive(false);
  RunQueue(interactive_, &FrameOutput::Room);
  RunQueue(bulk_, &FrameOutput::BulkRoom);
}

void ReadScheduler::RunQueue(Queue& queue, std::span<char> (FrameOutput::*room)()) {
  for (std::span<char> out; !queue.empty() && !(out = (output_.*room)()).empty();) {
    const auto connection = std::move(queue.front());
    queue.pop_front();
    if (connection->state() == Connection::State::kOpen) Read(connection, out);
  }
}

void ReadScheduler::Read(const std::shared_ptr<Connection>& connection, std::span<char> room) {
  const auto count = connection->Read(room);
  if (!count) return owner_.OnTargetEnd(*connection);
  if (*count != 0) {
    output_.AddData(connection->id(), *count);
    owner_.OnDataQueued();
    connection->interactive() ? GoFirst() : output_.FlushSoon();
  }
  loop_.OnRead(*count);
  if (*count == room.size()) {
    bulk_.push_back(connection);
  } else {
    connection->WaitReadable();
  }
}

void ReadScheduler::GoFirst() {
  output_.FlushNow();
  if (owner_.IsAlone()) return;
  interactive_until_ = Clock::now() + kInteractiveTime;
  output_.SetInteractive(true);
}

}  // namespace gxtool

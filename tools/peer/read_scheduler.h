// The order in which data from the targets goes into the outgoing stream.
//
// Targets that send little at a time come before those that send much. While there are interactive ones, the
// stream's queue is kept short for them. Within each kind they take turns, one frame each.
// Threads: the one that runs the io_context.
#ifndef GX_PEER_READ_SCHEDULER_H
#define GX_PEER_READ_SCHEDULER_H

#include <deque>
#include <memory>
#include <span>

#include "peer/connection.h"
#include "peer/event_loop.h"
#include "peer/frame_output.h"

namespace gxtool {

class ReadScheduler {
 public:
  class Owner {
   public:
    // The target has ended, and all its bytes are in the stream.
    virtual void OnTargetEnd(Connection& connection) = 0;
    // A Data frame is being sent.
    virtual void OnDataQueued() = 0;
    // True when there is only one connection, which needs no priority.
    virtual bool IsAlone() const = 0;

   protected:
    ~Owner() = default;
  };

  // All arguments are borrowed and outlive the scheduler.
  ReadScheduler(FrameOutput& output, EventLoop& loop, Owner& owner)
      : output_(output), loop_(loop), owner_(owner) {}

  // Queues a connection whose target has data. Call it once per WaitReadable.
  void Add(Connection& connection);
  // Reads while the stream has room.
  void Run();
  // True when no connection has data.
  bool idle() const { return interactive_.empty() && bulk_.empty(); }

 private:
  using Queue = std::deque<std::shared_ptr<Connection>>;

  void RunQueue(Queue& queue, std::span<char> (FrameOutput::*room)());
  void Read(const std::shared_ptr<Connection>& connection, std::span<char> room);
  void GoFirst();

  FrameOutput& output_;
  EventLoop& loop_;
  Owner& owner_;
  Queue interactive_;
  Queue bulk_;
  Clock::time_point interactive_until_;
};

}  // namespace gxtool

#endif  // GX_PEER_READ_SCHEDULER_H

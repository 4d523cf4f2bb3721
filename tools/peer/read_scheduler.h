// Whose bytes go next: data from the targets into the outgoing stream.
//
// A target that says little at a time goes before those that have much to say, and while such are about the
// stream is kept short for them. Within each kind they take turns, one frame at a time.
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
    // The target has sent its last byte, and all of them are in the stream.
    virtual void OnTargetEnd(Connection& connection) = 0;
    // A frame of data goes out.
    virtual void OnDataQueued() = 0;
    // There is one connection only: it needs no priority.
    virtual bool IsAlone() const = 0;

   protected:
    ~Owner() = default;
  };

  // None is owned, all outlive the scheduler.
  ReadScheduler(FrameOutput& output, EventLoop& loop, Owner& owner)
      : output_(output), loop_(loop), owner_(owner) {}

  // The connection's target has something to say. Once, until it was read and waits again.
  void Add(Connection& connection);
  // Reads as long as the stream has room.
  void Run();
  // Nobody has anything to say.
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

// The task that finishes closing a connection whose peer has not received everything yet.
#ifndef GX_SOCK_TCP_LINGER_TASK_H
#define GX_SOCK_TCP_LINGER_TASK_H

#include <cstdint>

#include "base/scoped_descriptor.h"
#include "reactor/tcp_task.h"

// A socket that is closed, or shut down for reading, answers further data from its peer with a reset, and a
// reset discards data that the peer has not received. So this task duplicates the descriptor and discards
// incoming data until the peer ends or has acknowledged nothing for 60 s, checked in each pass of the tracker.
// A tracker that stops drops the task, which closes the socket, too.
class CTCPLingerTask final : public ITCPTask {
 public:
  // Shuts down the sending side of `socket` and adds a task for the rest to the tracker. Returns false when no
  // data could get lost or waiting is impossible; then the caller shuts the socket down.
  static bool Start(int socket, ITCPTaskTracker* tracker);

  bool Done() override;
  // True when nothing was acknowledged for too long.
  bool timeout() override;
  unsigned long timeleft() override;

 private:
  CTCPLingerTask(gxbase::ScopedDescriptor own, ITCPTaskTracker& tracker);
  ~CTCPLingerTask() override;
  bool HasPeerEnded() const;

  const gxbase::ScopedDescriptor own_;
  ITCPTaskTracker& tracker_;
  int unacknowledged_bytes_ = 0;
  std::uint64_t last_progress_ms_;
};

#endif  // GX_SOCK_TCP_LINGER_TASK_H

// The task that sees a connection to its end when the peer has not yet taken all that was sent.
#ifndef GX_SOCK_TCP_LINGER_TASK_H
#define GX_SOCK_TCP_LINGER_TASK_H

#include <cstdint>

#include "base/descriptor.h"
#include "reactor/tcp_task.h"

// A socket that is shut down for reading, or closed, answers what its peer still sends with a reset, and a
// reset takes along what the peer has not received yet. This task keeps a descriptor of its own on the socket
// and drops what comes, until the peer ends or has not acknowledged anything for 60 s, which shows in the
// tracker's next pass. A tracker that stops drops the task, and that closes the socket, too.
class CTCPLingerTask final : public ITCPTask {
 public:
  // Ends the sending direction of `socket` and leaves the rest to a new task of the tracker. False: there is
  // nothing that could get lost, or no way to wait, and the caller shuts the socket down.
  static bool Start(int socket, ITCPTaskTracker* tracker);

  bool Done() override;
  // Nothing has been acknowledged for too long.
  bool timeout() override;
  unsigned long timeleft() override;

 private:
  CTCPLingerTask(gxbase::Descriptor own, ITCPTaskTracker& tracker);
  ~CTCPLingerTask() override;
  bool HasPeerEnded() const;

  const gxbase::Descriptor own_;
  ITCPTaskTracker& tracker_;
  int unacknowledged_bytes_ = 0;
  std::uint64_t last_progress_ms_;
};

#endif  // GX_SOCK_TCP_LINGER_TASK_H

// A switch that wakes threads that wait in poll.
#ifndef GX_SSH_STOP_SIGNAL_H
#define GX_SSH_STOP_SIGNAL_H

#include <atomic>

#include "common/descriptor.h"

namespace gxtool {

// Thrown once, for good. Threads: any.
class StopSignal {
 public:
  StopSignal() : pipe_(MakePipe()) {}

  void Raise() {
    // Closing the far end makes `fd` readable for everyone who waits, now and later.
    if (!raised_.exchange(true)) pipe_.write.Reset();
  }
  bool raised() const { return raised_; }

  // Becomes readable when the switch is thrown.
  int fd() const { return pipe_.read.get(); }

  // Waits until `fd` is ready for `events` (of poll), or `wake` (-1: none) for reading, or so many milliseconds
  // (-1: without end) are over. False: the switch was thrown.
  bool WaitFor(int fd, short events, int wake = -1, int milliseconds = -1) const;

 private:
  Pipe pipe_;
  std::atomic<bool> raised_{false};
};

}  // namespace gxtool

#endif  // GX_SSH_STOP_SIGNAL_H

// A one-time switch that wakes threads that wait in poll.
#ifndef GX_SSH_STOP_SIGNAL_H
#define GX_SSH_STOP_SIGNAL_H

#include <atomic>

#include "common/descriptor.h"

namespace gxtool {

// Once raised it stays raised. Threads: any.
class StopSignal {
 public:
  StopSignal() : pipe_(MakePipe()) {}

  void Raise() {
    // Closing the write end makes `fd` readable for all waiting threads, now and later.
    if (!raised_.exchange(true)) pipe_.write.Reset();
  }
  bool raised() const { return raised_; }

  // Becomes readable when the switch is raised.
  int fd() const { return pipe_.read.get(); }

  // Waits until `fd` is ready for `events` (of poll), `wake` (-1: none) is readable, or `milliseconds` (-1: no
  // limit) have passed. Returns false when the switch is raised.
  bool WaitFor(int fd, short events, int wake = -1, int milliseconds = -1) const;

 private:
  Pipe pipe_;
  std::atomic<bool> raised_{false};
};

}  // namespace gxtool

#endif  // GX_SSH_STOP_SIGNAL_H

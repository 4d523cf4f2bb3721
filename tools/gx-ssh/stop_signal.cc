#include "gx-ssh/stop_signal.h"

#include <poll.h>

namespace gxtool {

bool StopSignal::WaitFor(int fd, short events) const {
  pollfd waits[2] = {{this->fd(), POLLIN, 0}, {fd, events, 0}};
  // A wait that a signal cuts short is simply repeated.
  while (!raised_ && poll(waits, 2, -1) < 0) {
  }
  return !raised_;
}

}  // namespace gxtool

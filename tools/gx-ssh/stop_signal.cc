#include "gx-ssh/stop_signal.h"

#include <poll.h>

#include <iterator>

namespace gxtool {

bool StopSignal::WaitFor(int fd, short events, int wake, int milliseconds) const {
  pollfd waits[] = {{this->fd(), POLLIN, 0}, {fd, events, 0}, {wake, POLLIN, 0}};
  // Repeats a wait that a signal interrupted.
  while (!raised_ && poll(waits, std::size(waits), milliseconds) < 0) {
  }
  return !raised_;
}

}  // namespace gxtool

// Signals to the program, and their senders.
#ifndef GX_SSH_SIGNALS_H
#define GX_SSH_SIGNALS_H

#include <signal.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <functional>
#include <utility>
#include <vector>

#include "common/descriptor.h"

namespace gxtool {

struct Signal {
  unsigned char number = 0;
  bool typed = false;  // sent by the kernel to the whole process group, because of a key or the terminal's end
  pid_t sender = 0;    // the sending process, unless typed
};

// Handles SIGINT, SIGTERM, SIGHUP (unless it is ignored, as under nohup), SIGCHLD, SIGTSTP, SIGCONT and SIGUSR1
// and passes them to the handler in order. One object at a time. Threads: the one that runs `io`.
class Signals {
 public:
  using Handler = std::function<void(Signal)>;

  Signals(asio::io_context& io, Handler handler);
  // Restores the previous signal actions.
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Handles the signals that have arrived so far. A signal to the whole group reaches this process before the
  // death of another process from that signal can be observed.
  void HandOn();

  // Does SIGTSTP's default action: stops this process, and its group unless `alone`, until a shell continues
  // it. Returns at once where no shell could do that.
  void Suspend(bool alone);

 private:
  void Watch(int number);
  void Wait();

  Pipe pipe_ = MakePipe();
  const Handler handler_;
  std::vector<std::pair<int, struct sigaction>> before_;
  asio::posix::stream_descriptor wake_up_;
};

}  // namespace gxtool

#endif  // GX_SSH_SIGNALS_H

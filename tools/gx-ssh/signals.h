// Signals that reach the program, and who sent them.
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
  bool typed = false;  // by the kernel, for a key on the terminal or its end, to the whole process group
  pid_t sender = 0;    // the process, unless typed
};

// Takes SIGINT, SIGTERM, SIGHUP (unless it is ignored: nohup asks for that), SIGCHLD, SIGTSTP, SIGCONT and
// SIGUSR1 out of the hands of the system and hands them on in order. One object at a time. Threads: the one
// that runs `io`.
class Signals {
 public:
  using Handler = std::function<void(Signal)>;

  Signals(asio::io_context& io, Handler handler);
  // Gives the signals back.
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Hands on what has come by now. A signal to the whole group has reached this process before the end of
  // another one that died of it can be seen.
  void HandOn();

  // What SIGTSTP does by itself: stops this process, and unless `alone` its group, until a shell continues it.
  // Where no shell could do that it returns at once.
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

// What --run starts.
#ifndef GX_SSH_COMMAND_H
#define GX_SSH_COMMAND_H

#include <signal.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <optional>
#include <string>

#include "gx-ssh/child.h"
#include "gx-ssh/signals.h"
#include "gx-ssh/terminal.h"

namespace gxtool {

// A shell command in a process group of its own, which has the terminal: what is typed there reaches the
// command and nobody else. Threads: the one that runs `io`.
class Command {
 public:
  // `input` and `output` become its standard ones. All but the texts are borrowed. Throws Failure.
  Command(asio::io_context& io, Terminal& terminal, const std::string& text, int input, int output,
          const Child::Variables& environment);

  // As Child::Poll.
  std::optional<int> Poll() { return child_.Poll(); }

  // Somebody wants gx-ssh to stop, and so the command: within 2 s, except for a key, which is its own affair.
  void OnStopSignal(Signal signal);
  // gx-ssh alone is about to be stopped.
  void Suspend() { child_.Signal(SIGTSTP); }
  // gx-ssh was stopped by a shell and goes on, or another program has had the terminal.
  void Continue();

 private:
  Terminal& terminal_;
  Child child_;
  asio::steady_timer patience_;
};

}  // namespace gxtool

#endif  // GX_SSH_COMMAND_H

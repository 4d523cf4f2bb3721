// The command of --run.
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

// A shell command in its own process group, in the terminal's foreground: only the command receives what is
// typed. Threads: the one that runs `io`.
class Command {
 public:
  // `input` and `output` become its standard input and output. All arguments except the texts are borrowed.
  // Throws Failure.
  Command(asio::io_context& io, Terminal& terminal, const std::string& text, int input, int output,
          const Child::Variables& environment);

  // See Child::Poll.
  std::optional<int> Poll() { return child_.Poll(); }

  // Passes the signal on when gx-ssh was asked to stop. Ends the command within 2 s, except after Ctrl-C, which
  // the command may handle as it likes.
  void OnStopSignal(Signal signal);
  // Call before gx-ssh alone is stopped.
  void Suspend() { child_.Signal(SIGTSTP); }
  // Call after a shell continued gx-ssh, or after another program had the terminal.
  void Continue();

 private:
  Terminal& terminal_;
  Child child_;
  asio::steady_timer patience_;
};

}  // namespace gxtool

#endif  // GX_SSH_COMMAND_H

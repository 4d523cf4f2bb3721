// The command that carries the stream to the far side.
#ifndef GX_SSH_CARRIER_H
#define GX_SSH_CARRIER_H

#include <signal.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gx-ssh/child.h"
#include "gx-ssh/console.h"
#include "gx-ssh/far_side.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/terminal.h"

namespace gxtool {

// Its standard input and output are the stream. Its error lines are shown as they arrive, escaped; the last
// lines that were not shown are kept for the message about its end. Unless the link is raw, it runs in its own
// process group and is lent the terminal, to ask for passwords, until that is taken back.
class Carrier final : public FarSide {
 public:
  // Throws Failure when the command cannot be run. `on_quiet` is called once, at the end of its standard error.
  Carrier(asio::io_context& io, const std::vector<std::string>& command, bool raw, Console& console,
          Terminal& terminal, std::function<void()> on_quiet);

  Descriptor TakeInput() override { return std::move(output_.read); }
  Descriptor TakeOutput() override { return std::move(input_.write); }
  bool Exited() override { return child_.Poll().has_value(); }
  bool Killed() override;
  bool Interrupted() override;
  bool Ended() override { return Exited() && !errors_.is_open(); }
  void Suspend() override { child_.Signal(SIGTSTP); }
  void Continue() override { child_.Signal(SIGCONT); }
  void End() override;
  std::string Describe() override;

 private:
  void ReadErrors();
  void TakeErrors(std::string_view text);
  void TakeLine();
  std::string Prefixed(std::string_view line) const;

  const std::string name_;  // the program's name, for messages
  Console& console_;
  Pipe input_ = MakeSocketPipe();
  Pipe output_ = MakeSocketPipe();
  Pipe error_pipe_ = MakePipe();
  const int terminal_;  // lent to the carrier; -1: no terminal
  Child child_;
  asio::posix::stream_descriptor errors_;
  const std::function<void()> on_quiet_;
  std::array<char, 4096> chunk_;
  std::string line_;
  std::deque<std::string> last_lines_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_CARRIER_H

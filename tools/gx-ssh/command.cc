#include "gx-ssh/command.h"

#include <signal.h>

#include <chrono>

namespace gxtool {
namespace {

constexpr std::chrono::seconds kPatience{2};

Child::Start MakeStart(const Terminal& terminal, const std::string& text, int input, int output,
                       const Child::Variables& environment) {
  Child::Start start{{"/bin/sh", "-c", text}};
  start.input = input;
  start.output = output;
  start.environment = environment;
  start.group = Child::Group::kOwn;
  start.terminal = terminal.ToLend();
  start.leftover_time = kPatience;
  return start;
}

}  // namespace

Command::Command(asio::io_context& io, Terminal& terminal, const std::string& text, int input, int output,
                 const Child::Variables& environment)
    : terminal_(terminal), child_(MakeStart(terminal, text, input, output, environment)), patience_(io) {
  terminal_.LentTo(child_.group());
}

void Command::OnStopSignal(Signal signal) {
  child_.Signal(signal.number);
  if (signal.typed && signal.number == SIGINT) return;
  patience_.expires_after(kPatience);
  patience_.async_wait([this](asio::error_code error) {
    if (!error) child_.Signal(SIGKILL);
  });
}

void Command::Continue() {
  terminal_.LentTo(child_.group());
  terminal_.OnContinued();
  child_.Signal(SIGCONT);
}

}  // namespace gxtool

#include "gx-ssh/carrier.h"

#include <spdlog/spdlog.h>
#include <sys/wait.h>

#include <asio/buffer.hpp>
#include <cstdlib>

#include "gx-ssh/readable.h"
#include "gx-ssh/report.h"

namespace gxtool {
namespace {

constexpr std::size_t kLastLines = 3;
constexpr std::size_t kLineBytes = 1000;

// bash with a socket as standard input takes itself for a remote login's command and reads ~/.bashrc, unless
// SHLVL shows that it runs inside another shell. gx-ssh under a shell passes its own SHLVL on.
Child::Variables ShellLevel() {
  const char* level = std::getenv("SHLVL");
  if (level != nullptr && std::atoi(level) > 0) return {};
  return {{"SHLVL", "1"}};
}

}  // namespace

Carrier::Carrier(asio::io_context& io, const std::vector<std::string>& command, bool raw, Console& console,
                 Terminal& terminal, std::function<void()> on_quiet)
    : name_(ProgramName(command.front())),
      console_(console),
      terminal_(raw ? -1 : terminal.ToLend()),
      child_({command, input_.read.get(), output_.write.get(), error_pipe_.write.get(), ShellLevel(),
              raw ? Child::Group::kOurs : Child::Group::kOwnSharesInterrupts, terminal_}),
      errors_(io, error_pipe_.read.Release()),
      on_quiet_(std::move(on_quiet)) {
  input_.read.Reset();
  output_.write.Reset();
  error_pipe_.write.Reset();
  if (!raw) terminal.LentTo(child_.group());
  ReadErrors();
}

bool Carrier::Killed() {
  const auto status = child_.Poll();
  return status && WIFSIGNALED(*status);
}

bool Carrier::Interrupted() {
  const auto status = terminal_ >= 0 ? child_.Poll() : std::nullopt;
  return status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGINT;
}

void Carrier::End() {
  child_.End();
  // Read the last error lines that are already there. Do not wait for the end: a process that it started may
  // hold the pipe open.
  asio::error_code error;
  errors_.non_blocking(true, error);
  while (errors_.is_open() && !error) {
    const std::size_t got = errors_.read_some(asio::buffer(chunk_), error);
    TakeErrors({chunk_.data(), got});
  }
  if (!line_.empty()) TakeLine();
  errors_.close(error);
}

std::string Carrier::Describe() {
  const auto status = child_.Poll();
  std::string text = "carrier \"" + name_ + '"' + (status ? ", " + Child::Describe(*status) : " still runs");
  const char* divider = ": ";
  for (const std::string& line : last_lines_) text += std::exchange(divider, " | ") + line;
  return text;
}

void Carrier::ReadErrors() {
  errors_.async_read_some(asio::buffer(chunk_),
                          lifetime_.Guard([this](asio::error_code error, std::size_t got) {
                            TakeErrors({chunk_.data(), got});
                            if (!error) return ReadErrors();
                            if (!line_.empty()) TakeLine();
                            errors_.close(error);
                            on_quiet_();
                          }));
}

void Carrier::TakeErrors(std::string_view text) {
  for (const char byte : text) {
    if (byte == '\n' || line_.size() == kLineBytes) TakeLine();
    if (byte != '\n' && byte != '\r') line_ += byte;
  }
  const std::string_view begun = WholeCharacters(line_);
  if (!begun.empty() && spdlog::should_log(spdlog::level::info)) console_.ShowUnfinished(Prefixed(begun));
}

void Carrier::TakeLine() {
  const std::string line = std::exchange(line_, {});
  spdlog::info("{}", Prefixed(line));
  if (line.empty() || spdlog::should_log(spdlog::level::info)) return;
  last_lines_.push_back(Readable(line));
  if (last_lines_.size() > kLastLines) last_lines_.pop_front();
}

std::string Carrier::Prefixed(std::string_view line) const {
  const std::string prefix = name_ + ": ";
  return (line.starts_with(prefix) ? "" : prefix) + Readable(line);
}

}  // namespace gxtool

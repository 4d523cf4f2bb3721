#include "gx-ssh/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <utility>

#include "common/escape.h"
#include "gx-ssh/terminal.h"

namespace gxtool {
namespace {

const std::string kPrefix = "gx-ssh: ";

constexpr std::chrono::milliseconds kWipeTime{300};

std::string LostLine(std::uint64_t lost) {
  return kPrefix + std::to_string(lost) + " messages are missing here: standard error was not read in time\n";
}

// A line wider than the terminal would wrap, and Wipe would remove too few lines.
std::string Fit(const std::string& lines) {
  winsize size{};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
  const std::size_t width = known ? size.ws_col - 1u : 79u;
  std::string fitting;
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line);) {
    if (!fitting.empty()) fitting += '\n';
    fitting += line.substr(0, width);
  }
  return fitting;
}

}  // namespace

Console::Console() : output_(STDERR_FILENO, LostLine) {}

std::shared_ptr<Console> Console::SetUp(bool quiet, int verbosity) {
  auto console = std::make_shared<Console>();
  auto logger = std::make_shared<spdlog::logger>("gx-ssh", console);
  logger->set_pattern(kPrefix + "%v");
  logger->set_level(quiet            ? spdlog::level::err
                    : verbosity >= 2 ? spdlog::level::trace
                    : verbosity == 1 ? spdlog::level::debug
                                     : spdlog::level::info);
  spdlog::set_default_logger(std::move(logger));
  return console;
}

void Console::SetStatus(const std::string& lines) {
  {
    const std::lock_guard lock(mutex_);
    if (status_.empty() && lines.empty()) return;
    Wipe();
    status_ = Fit(lines);
    Draw();
    SendOut();
  }
  if (lines.empty()) output_.WaitUntilWritten(kWipeTime);
}

void Console::ForgetStatus() {
  const std::lock_guard lock(mutex_);
  status_.clear();
}

void Console::ShowUnfinished(const std::string& text) {
  const std::lock_guard lock(mutex_);
  Wipe();
  status_.clear();
  Say(kPrefix + text);
  unfinished_ = kPrefix + text;
  SendOut();
}

void Console::sink_it_(const spdlog::details::log_msg& message) {
  spdlog::memory_buf_t line;
  formatter_->format(message, line);
  Wipe();
  Say({line.data(), line.size()});
  Draw();
  SendOut();
}

void Console::Say(std::string_view text) {
  const std::string before = std::exchange(unfinished_, {});
  if (text.starts_with(before)) {
    out_ += text.substr(before.size());
  } else {
    out_.append("\n").append(text);
  }
}

void Console::Draw() {
  if (!InForeground(STDERR_FILENO) || !output_.WaitUntilWritten({})) status_.clear();
  if (status_.empty()) return;
  if (!std::exchange(unfinished_, {}).empty()) out_ += '\n';
  out_ += status_ + '\n';
}

void Console::Wipe() {
  if (status_.empty() || !InForeground(STDERR_FILENO)) return;
  const auto lines = 1 + std::count(status_.begin(), status_.end(), '\n');
  // The terminal may have echoed a key meanwhile and moved the cursor.
  out_ += "\r\x1b[" + std::to_string(lines) + "A\x1b[J";
}

void Console::SendOut() {
  if (!out_.empty()) output_.Add(std::exchange(out_, {}));
}

void ModuleLog::Log(int level, const char* text) {
  const bool trouble = level == kGXModLogWarning || level == kGXModLogError;
  const int needed = trouble ? 1 : level == kGXModLogInfo ? 2 : 3;
  if (verbosity_ >= needed) spdlog::debug("{}", Escape(text, 4096));
}

const char* ModuleLog::GetEnv(const char* name) { return std::getenv(name); }

}  // namespace gxtool

// gx-ssh-peer: the far side of the tunnel as a program. Frames on stdin and stdout, messages on stderr.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "common/descriptor.h"
#include "peer/command_line.h"
#include "peer/confinement.h"
#include "peer/peer.h"

namespace {

constexpr int kUsageStatus = 2;

void SetUpLog() {
  spdlog::set_default_logger(spdlog::stderr_logger_mt("gx-ssh-peer"));
  spdlog::set_pattern("%n: %v");
}

spdlog::level::level_enum LogThreshold(const gxtool::CommandLine& line) {
  if (line.quiet) return spdlog::level::err;
  const spdlog::level::level_enum levels[] = {spdlog::level::warn, spdlog::level::info, spdlog::level::debug};
  return levels[std::min(line.verbosity, 2)];
}

void Log(gxtool::LogLevel level, const std::string& line) {
  switch (level) {
    case gxtool::LogLevel::kError:
      return spdlog::error("{}", line);
    case gxtool::LogLevel::kWarning:
      return spdlog::warn("{}", line);
    case gxtool::LogLevel::kInfo:
      return spdlog::info("{}", line);
    case gxtool::LogLevel::kDebug:
      return spdlog::debug("{}", line);
  }
}

int FailUsage(const std::string& line) {
  spdlog::error("{} (see gx-ssh-peer --help)", line);
  return kUsageStatus;
}

// True for a terminal in its usual mode, which edits lines and changes line ends. A raw serial line is fine.
bool IsEditingTerminal(int fd) {
  termios mode{};
  return tcgetattr(fd, &mode) == 0 && ((mode.c_lflag & (ICANON | ECHO)) != 0 || (mode.c_oflag & OPOST) != 0);
}

// Every connection uses a descriptor, also while it closes.
void RaiseDescriptorLimit(std::size_t connections) {
  rlimit limit{};
  const rlim_t wanted = 2 * connections + 64;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted) return;
  limit.rlim_cur = std::min(limit.rlim_max, wanted);
  setrlimit(RLIMIT_NOFILE, &limit);
}

gxtool::ConfinementNeeds Needs(const gxtool::CommandLine& line) {
  const auto& [allow, target] = std::tie(line.options.allow, line.options.target);
  if (!target) return {line.name_cache.file, allow.Ports(), allow.HasUnixSockets()};
  const auto* const place = std::get_if<gxtool::HostPort>(&*target);
  if (place == nullptr) return {line.name_cache.file, std::vector<std::uint16_t>(), true};
  return {line.name_cache.file, {{place->port}}, false};
}

// `path` is this program's file.
void RemoveOwnFile(const std::string& path, bool with_folder) {
  unlink(path.c_str());
  if (with_folder) rmdir(path.substr(0, path.rfind('/')).c_str());
}

int Main(int argc, const char* const* argv) {
  gxtool::CommandLine line = gxtool::ParseCommandLine(argc, argv);
  if (!line.text.empty()) {
    std::fputs(line.text.c_str(), stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
  }
  spdlog::set_level(LogThreshold(line));
  if (line.remove_own_file || line.remove_own_folder) RemoveOwnFile(argv[0], line.remove_own_folder);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO}) {
    if (IsEditingTerminal(fd)) {
      return FailUsage(
          std::string(fd == STDIN_FILENO ? "stdin" : "stdout") +
          " is a terminal: frames need a clean byte stream, so gx-ssh starts this program; ssh -T, docker "
          "exec -i without -t, and stty raw on a serial line give one");
    }
  }
  RaiseDescriptorLimit(line.options.max_connections);
  line.options.handle_signals = true;
  line.options.log = Log;
  if (!line.name_cache.file.empty()) line.options.names.cache = gxtool::OpenNameCache(line.name_cache);
  // Confine before reading the first byte from the other side.
  const std::string confined = line.confine ? Confine(Needs(line)).ToString() : "nothing, as asked for";
  Log(gxtool::LogLevel::kDebug, "confines: " + confined);
  gxtool::Peer peer(std::move(line.options), STDIN_FILENO, STDOUT_FILENO);
  return peer.Run();
}

}  // namespace

int main(int argc, char** argv) {
  SetUpLog();
  std::signal(SIGPIPE, SIG_IGN);
  try {
    gxtool::FillStandardDescriptors();
    return Main(argc, argv);
  } catch (const gxtool::UsageError& error) {
    return FailUsage(error.what());
  } catch (const std::exception& error) {
    spdlog::error("{}", error.what());
    return gxtool::kPeerLinkLost;
  }
}

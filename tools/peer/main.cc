// gx-ssh-peer: the far side of the tunnel as a program. Frames on stdin and stdout, words on stderr.
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <string>
#include <vector>

#include "peer/peer.h"

namespace {

constexpr int kUsageError = 2;

void SetUpLogging(spdlog::level::level_enum level) {
  spdlog::set_default_logger(spdlog::stderr_logger_st("gx-ssh-peer"));
  spdlog::set_pattern("%n: %v");
  spdlog::set_level(level);
}

int UsageError(const std::string& line) {
  spdlog::critical("{} (try gx-ssh-peer --help)", line);
  return kUsageError;
}

}  // namespace

int main(int argc, char** argv) {
  SetUpLogging(spdlog::level::warn);
  std::signal(SIGPIPE, SIG_IGN);

  CLI::App app(
      "The far side of gx-ssh: speaks frames on stdin and stdout and opens the connections they ask for.",
      "gx-ssh-peer");
  std::vector<std::string> allow;
  bool raw = false;
  app.add_option("--allow", allow, "A target that may be asked for")
      ->type_name("HOST:PORT")
      ->allow_extra_args(false);
  app.add_flag("--raw", raw, "Frames from the first byte: no ready line");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return UsageError(error.what());
  }

  gxtool::PeerOptions options;
  if (!allow.empty()) options.allow = gxtool::AllowList();
  for (const std::string& entry : allow) {
    std::string why;
    if (!options.allow.Add(entry, &why)) return UsageError("--allow " + entry + ": " + why);
  }
  options.raw = raw;
  options.log = [](gxtool::LogLevel level, const std::string& line) {
    spdlog::log(level == gxtool::LogLevel::kWarning ? spdlog::level::warn : spdlog::level::info, "{}", line);
  };
  gxtool::Peer peer(std::move(options), STDIN_FILENO, STDOUT_FILENO);
  return peer.Run();
}

// gx-ssh: forwards local TCP connections through the standard input and output of a command.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <utility>
#include <variant>

#include "common/descriptor.h"
#include "common/high_descriptors.h"
#include "common/ready_line.h"
#include "gx-ssh/app.h"
#include "gx-ssh/background.h"
#include "gx-ssh/console.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/module_library.h"
#include "gx-ssh/options.h"
#include "gx-ssh/passed_sockets.h"
#include "gx-ssh/probe.h"
#include "gx-ssh/readiness.h"
#include "gx-ssh/socket_client.h"

namespace {

int PrintVersion(const gxtool::Options& options, int output) {
  gxtool::ModuleLog log(0);
  dprintf(output, "gx-ssh %s\nprotocol %d\n", GX_VERSION, gxtool::kProtocolVersion);
  dprintf(output, "service manager %s\n",
          gxtool::Readiness::KnowsServiceManager() ? "yes" : "not in this build");
  try {
    const gxtool::ModuleLibrary module(options.module_path, log);
    dprintf(output, "module %s (%s)\n", module.Description().c_str(), module.path().c_str());
  } catch (const gxtool::Failure& failure) {
    dprintf(output, "module none: %s\n", failure.what());
  }
  return gxtool::kExitOk;
}

int PrintProbe(const gxtool::Options& options, int output, gxtool::Console& console) {
  const gxtool::ProbeResult result = gxtool::Probe(options, console);
  if (options.json) {
    dprintf(output, "%s\n", gxtool::ProbeObject(result).Text().c_str());
  } else {
    for (const std::string& line : gxtool::ProbeTable(result)) dprintf(output, "%s\n", line.c_str());
  }
  return result.problem.empty() ? gxtool::kExitOk : gxtool::kExitNotReady;
}

int Run(int argc, char** argv) {
  using namespace gxtool;
  signal(SIGPIPE, SIG_IGN);
  FillStandardDescriptors();
  const auto parsed = ParseOptions(argc, argv);
  if (const int* status = std::get_if<int>(&parsed)) return *status;
  const Options& options = std::get<Options>(parsed);
  const Descriptor output = TakeStandardOutput();
  if (options.show_version) return PrintVersion(options, output.get());
  // The module uses select, so the descriptors of the listener and of an internal far side move above its
  // range.
  if (options.local || options.HasListener()) RaiseDescriptorLimit();
  PassedSockets passed;
  std::optional<Background> background;
  if (options.background) background.emplace(output.get());
  const auto console = Console::SetUp(options.quiet, options.verbosity);
  if (!options.log_file.empty()) AddLogFile(options.log_file, options.log_format);
  if (!options.connect_path.empty()) {
    return ConnectSocket(options.connect_path, options.connect_timeout, STDIN_FILENO, output.get());
  }
  if (options.probe) return PrintProbe(options, output.get(), *console);
  return App(options, output.get(), console, background ? &*background : nullptr, std::move(passed)).Run();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const gxtool::Failure& failure) {
    std::fprintf(stderr, "gx-ssh: %s\n", failure.what());
    return failure.status();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "gx-ssh: %s\n", error.what());
    return gxtool::kExitLinkLost;
  }
}

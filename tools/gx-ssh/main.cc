// gx-ssh: forwards local TCP connections through the standard input and output of a command.

#include <signal.h>
#include <spdlog/spdlog.h>

#include <exception>
#include <variant>

#include "gx-ssh/app.h"
#include "gx-ssh/console.h"
#include "gx-ssh/descriptor.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/options.h"

int main(int argc, char** argv) {
  using namespace gxtool;
  signal(SIGPIPE, SIG_IGN);
  try {
    FillStandardDescriptors();
    const auto parsed = ParseOptions(argc, argv);
    if (const int* status = std::get_if<int>(&parsed)) return *status;
    const Options& options = std::get<Options>(parsed);
    Console::SetUp(options.quiet, options.verbosity);
    return App(options).Run();
  } catch (const Failure& failure) {
    spdlog::error("{}", failure.what());
    return failure.status();
  } catch (const std::exception& error) {
    spdlog::error("{}", error.what());
    return kExitLinkLost;
  }
}

// The program: signals, links, and what it prints.
#ifndef GX_SSH_APP_H
#define GX_SSH_APP_H

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <memory>
#include <optional>
#include <string>

#include "gx-ssh/console.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/link.h"
#include "gx-ssh/module_library.h"
#include "gx-ssh/options.h"

namespace gxtool {

// Threads: one, the program's main thread, which also starts every child.
class App final : public Link::Owner {
 public:
  explicit App(Options options);

  // Returns the exit status. Throws Failure.
  int Run();

 private:
  void WaitForSignal();
  void OnSignal(int number);
  void Stop(ExitStatus status);

  void OnLinkUp(const std::string& address, std::uint16_t port) override;
  void OnLinkDown(const Failure& why) override;
  void OnFrame(const gxmod::FrameHeader&, bool) override {}

  const Options options_;
  asio::io_context io_;
  asio::signal_set signals_;
  ModuleLog module_log_;
  std::optional<ModuleLibrary> module_;
  std::unique_ptr<Link> link_;
  int status_ = kExitOk;
};

}  // namespace gxtool

#endif  // GX_SSH_APP_H

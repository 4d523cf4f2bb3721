// The program: signals, links, and what it does with the port.
#ifndef GX_SSH_APP_H
#define GX_SSH_APP_H

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "gx-ssh/backoff.h"
#include "gx-ssh/child.h"
#include "gx-ssh/console.h"
#include "gx-ssh/descriptor.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/link.h"
#include "gx-ssh/listener.h"
#include "gx-ssh/module_library.h"
#include "gx-ssh/options.h"
#include "gx-ssh/port_file.h"
#include "gx-ssh/reporter.h"
#include "gx-ssh/standard_io.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// Whatever ends the program calls Finish, which sets the exit status; Run then cleans up.
// Threads: one, the program's main thread, which also starts every child.
class App final : public Link::Owner {
 public:
  // `output` is standard output, borrowed.
  App(const Options& options, int output, std::shared_ptr<Console> console);

  // Returns the exit status, after a failure was told.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  void Start();
  void CleanUp();
  void Finish(int status, const std::string& reason);
  void Fail(const Failure& failure);

  void WaitForSignal();
  void OnSignal(int number);
  void OnStopSignal(int number);
  void OnChildEnded();

  void StartLink();
  void OnLinkUp(const std::string& address, std::uint16_t port) override;
  void OnLinkDown(const Failure& why) override;
  void TakeLinkDown(const Failure& why);
  void OnInputDelivered() override {
    if (standard_io_) standard_io_->OnInputDelivered();
  }
  void OnFrame(const gxmod::FrameHeader& header, bool sent) override;
  void Reconnect(const Failure& why);

  void Announce(const ListenAddress& address);
  void StartStandardIo(const std::string& address, std::uint16_t port);

  const Options& options_;
  const int standard_output_;
  const std::shared_ptr<Console> console_;
  asio::io_context io_;
  asio::signal_set signals_;
  asio::steady_timer link_timer_;      // between one link and what comes after it
  asio::steady_timer patience_timer_;  // with what is about to end
  ModuleLog module_log_;
  Traffic traffic_;
  Reporter reporter_;
  Backoff backoff_;
  Descriptor standard_input_;  // with -W and --run

  std::optional<ModuleLibrary> module_;
  std::unique_ptr<Link> link_;
  Clock::time_point link_up_since_;
  std::optional<Listener> listener_;
  std::optional<StandardIo> standard_io_;
  std::optional<PortFile> port_file_;
  std::unique_ptr<Child> command_;

  bool announced_ = false;
  int status_ = kExitOk;
  std::string reason_;
};

}  // namespace gxtool

#endif  // GX_SSH_APP_H

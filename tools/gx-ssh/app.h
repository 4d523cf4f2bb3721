// The program: creates its parts and connects them.
#ifndef GX_SSH_APP_H
#define GX_SSH_APP_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/descriptor.h"
#include "gx-ssh/background.h"
#include "gx-ssh/command.h"
#include "gx-ssh/console.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/link.h"
#include "gx-ssh/link_policy.h"
#include "gx-ssh/listener.h"
#include "gx-ssh/module_library.h"
#include "gx-ssh/options.h"
#include "gx-ssh/passed_sockets.h"
#include "gx-ssh/port_file.h"
#include "gx-ssh/readiness.h"
#include "gx-ssh/reporter.h"
#include "gx-ssh/signals.h"
#include "gx-ssh/standard_io.h"
#include "gx-ssh/terminal.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// Everything that ends the program calls Finish, which sets the exit status; Run then cleans up.
// Threads: the main thread, which also starts all child processes.
class App final : public Link::Owner {
 public:
  // `output` is standard output, borrowed. `background`: left when everything is ready; null without
  // --background.
  App(const Options& options, int output, std::shared_ptr<Console> console, Background* background,
      PassedSockets passed);

  // Returns the exit status, after a failure was reported.
  int Run();

 private:
  void Start();
  void CleanUp();
  void Finish(int status, const std::string& reason);
  void Fail(const Failure& failure);

  void OnSignal(Signal signal);
  void OnStopSignal(Signal signal);
  void OnSuspend(Signal signal);
  void OnContinued();
  void OnChildEnded();

  void StartLink();
  void EndLink();
  void OnBringing(const StoredPeer& peer, std::size_t sent, std::size_t total) override;
  void OnLinkUp(const std::string& address, std::uint16_t port) override;
  void OnLinkDown(const Failure& why, bool in_order) override;
  void OnRoom() override;
  void OnInputDelivered() override;
  void OnRefused(const std::string& why) override;
  void OnReset() override;
  void OnRoute(std::uint32_t connection, Route route) override {
    traffic_.OnRoute(connection, std::move(route));
  }
  void OnFrame(const gxmod::FrameHeader& header, bool sent) override;

  void TellChanges();
  void Announce(std::vector<Forward> forwards);
  void TellReady(const std::string& line);
  void StartStandardIo(const std::string& address, std::uint16_t port);

  const Options& options_;
  const int standard_output_;
  const std::shared_ptr<Console> console_;
  Terminal terminal_;
  asio::io_context io_;
  Signals signals_;
  asio::steady_timer pause_;  // before the next link
  ModuleLog module_log_;
  Traffic traffic_;
  std::mutex changes_mutex_;
  std::vector<Traffic::Change> changes_;  // changes of connections that the event loop has to report
  Reporter reporter_;
  Background* const background_;
  Readiness readiness_;
  LinkPolicy link_policy_;
  Descriptor standard_input_;  // with -W and --run
  PassedSockets passed_;

  std::optional<ModuleLibrary> module_;
  std::unique_ptr<Link> link_;
  std::list<Listener> listeners_;
  std::optional<StandardIo> standard_io_;
  std::optional<PortFile> port_file_;
  std::optional<Command> command_;

  std::vector<Forward> announced_;  // empty before the announcement
  bool finished_ = false;
  int status_ = kExitOk;
  std::string reason_;
};

}  // namespace gxtool

#endif  // GX_SSH_APP_H

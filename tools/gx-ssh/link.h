// One link to the far side, from the start of its carrier to its end.
#ifndef GX_SSH_LINK_H
#define GX_SSH_LINK_H

#include <gxmod/control_ssh.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/descriptor.h"
#include "gx-ssh/bring.h"
#include "gx-ssh/console.h"
#include "gx-ssh/entrance.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/far_side.h"
#include "gx-ssh/handshake.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/module_library.h"
#include "gx-ssh/options.h"
#include "gx-ssh/plugin_stream.h"
#include "gx-ssh/terminal.h"

namespace gxtool {

// States: starting (the far side is being brought or waited for), up (the module works on the stream), ending
// (something has broken; for a moment the carrier's exit status and last words are waited for), down. Threads:
// the one that runs `io`.
class Link final : StreamObserver {
 public:
  class Owner {
   public:
    // gx-ssh-peer is being sent to the far side.
    virtual void OnBringing(const StoredPeer& peer, std::size_t sent, std::size_t total) = 0;
    // The module listens there.
    virtual void OnLinkUp(const std::string& address, std::uint16_t port) = 0;
    // Once; the link may then be destroyed. `in_order`: the far side has said that it ends, and the module has
    // all that it sent.
    virtual void OnLinkDown(const Failure& why, bool in_order) = 0;
    // A target has all the bytes that came before the end of a connection's input.
    virtual void OnInputDelivered() = 0;
    // The entrance has room again.
    virtual void OnRoom() = 0;
    // A target could not be reached: once, for the first one.
    virtual void OnRefused(const std::string& why) = 0;
    // A target has broken a connection, which ends now.
    virtual void OnReset() = 0;
    // Whose connection opens next under that id. On threads of the module.
    virtual void OnRoute(std::uint32_t connection, Route route) = 0;
    // Every frame of the module's, either way. On threads of the module.
    virtual void OnFrame(const gxmod::FrameHeader& header, bool sent) = 0;

   protected:
    ~Owner() = default;
  };

  // All arguments outlive the link. Throws Failure when the carrier cannot be run.
  Link(asio::io_context& io, const Options& options, ModuleLibrary& module, Console& console,
       Terminal& terminal, Owner& owner);
  // Ends everything in order, within 2 s.
  ~Link();

  // While the link is up: of the port; null where everybody may connect to it.
  const std::shared_ptr<Entrance>& entrance() const { return stream_->entrance(); }

  // Somebody has interrupted the carrier at the terminal, before the far side was ready.
  bool Interrupted() const { return !stream_ && far_side_->Interrupted(); }

  // After SIGCHLD.
  void OnChildEnded() { CheckFarSide(); }
  // Before gx-ssh alone is stopped.
  void Suspend() { far_side_->Suspend(); }
  // After SIGCONT.
  void OnContinued() { far_side_->Continue(); }

 private:
  void StartBring();
  void StartHandshake(Descriptor input, const std::string& received);
  void FailToStart(const std::string& problem);
  void RunModule(Descriptor input, const std::string& received, bool acknowledges);
  void KeepAlive();
  void ExpireGuestsAt(Entrance::Clock::time_point time);
  void Fail(ExitStatus status, const std::string& reason);
  void BeginEnd();
  void CheckFarSide();
  void GoDown(const Failure& why);
  bool EndedInOrder() const { return goodbye_ && !far_side_->Killed(); }
  Failure Summary();

  void OnFrameSent(const gxmod::FrameHeader& header) override { owner_.OnFrame(header, true); }
  void OnFrameReceived(const gxmod::FrameHeader& header) override { owner_.OnFrame(header, false); }
  void OnEntered(std::uint32_t connection, Route route) override {
    owner_.OnRoute(connection, std::move(route));
  }
  void OnInputDelivered(std::uint32_t connection) override;
  void OnReset(std::uint32_t connection, std::string_view why_not_opened) override;
  void OnRefused(const std::string& why);
  void OnChannelListDropped() override;
  void OnFalseAcknowledgement() override;
  void OnWaiting() override;
  void OnRoom() override;
  void OnGoodbye(const std::string& reason) override;
  void OnInputEnd(const std::string& reason) override;
  void OnOutputFailed(const std::string& reason) override;

  asio::io_context& io_;
  const Options& options_;
  ModuleLibrary& module_;
  Owner& owner_;
  Lifetime lifetime_;
  std::unique_ptr<FarSide> far_side_;
  Descriptor output_;  // to the far side, until the stream takes it
  std::unique_ptr<Bring> bring_;
  std::unique_ptr<Handshake> handshake_;
  CRefObj<PluginStream> stream_;
  CRefObj<IControlSshPlugin> plugin_;
  asio::steady_timer keepalive_timer_;
  asio::steady_timer guest_timer_;  // of those who wait at the entrance
  asio::steady_timer end_timer_;
  std::optional<Failure> cause_;  // the first one
  std::optional<std::string> goodbye_;
  std::atomic<bool> delivered_waits_{false};
  std::atomic<bool> reset_waits_{false};
  std::atomic<bool> refusal_came_{false};
  std::atomic<bool> goodbye_came_{false};
  bool ending_ = false;
  bool input_ended_ = false;
  bool down_ = false;
  bool channel_list_told_ = false;  // only in the module's Read
};

}  // namespace gxtool

#endif  // GX_SSH_LINK_H

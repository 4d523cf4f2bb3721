// A link to the far side, from the start of its carrier to its end.
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

// States: starting (the far side is brought or awaited), up (the module works on the stream), ending (something
// has failed; the carrier's exit status and last messages are awaited for a moment), down. Threads: the one
// that runs `io`.
class Link final : StreamObserver {
 public:
  class Owner {
   public:
    // gx-ssh-peer is being uploaded to the far side.
    virtual void OnBringing(const StoredPeer& peer, std::size_t sent, std::size_t total) = 0;
    // The module listens at this address.
    virtual void OnLinkUp(const std::string& address, std::uint16_t port) = 0;
    // Called once; it may destroy the link. `in_order`: the far side announced its end, and the module has
    // everything that it sent.
    virtual void OnLinkDown(const Failure& why, bool in_order) = 0;
    // A target has received all bytes before the end of a connection's input.
    virtual void OnInputDelivered() = 0;
    // The entrance has room again.
    virtual void OnRoom() = 0;
    // A target could not be reached; called once, for the first one.
    virtual void OnRefused(const std::string& why) = 0;
    // A target has reset a connection, which is ending.
    virtual void OnReset() = 0;
    // The client and target of the connection that opens next under that id. Called on the module's threads.
    virtual void OnRoute(std::uint32_t connection, Route route) = 0;
    // Every frame of the module, in both directions. Called on the module's threads.
    virtual void OnFrame(const gxmod::FrameHeader& header, bool sent) = 0;

   protected:
    ~Owner() = default;
  };

  // All arguments outlive the link. Throws Failure when the carrier cannot be run.
  Link(asio::io_context& io, const Options& options, ModuleLibrary& module, Console& console,
       Terminal& terminal, Owner& owner);
  // Ends everything in order, within 2 s.
  ~Link();

  // The entrance of the module's port while the link is up; null when everyone may connect.
  const std::shared_ptr<Entrance>& entrance() const { return stream_->entrance(); }

  // Measurements of the line to the far side; none before the link is up.
  LinePace::View line() const { return stream_ ? stream_->line() : LinePace::View{}; }

  // True when the user interrupted the carrier at the terminal before the far side was ready.
  bool Interrupted() const { return !stream_ && far_side_->Interrupted(); }

  // Call after SIGCHLD.
  void OnChildEnded() { CheckFarSide(); }
  // Call before gx-ssh is stopped alone.
  void Suspend() { far_side_->Suspend(); }
  // Call after SIGCONT.
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
  Descriptor output_;  // to the far side, until the stream takes it over
  std::unique_ptr<Bring> bring_;
  std::unique_ptr<Handshake> handshake_;
  CRefObj<PluginStream> stream_;
  CRefObj<IControlSshPlugin> plugin_;
  asio::steady_timer keepalive_timer_;
  asio::steady_timer guest_timer_;  // for connections that wait at the entrance
  asio::steady_timer end_timer_;
  std::optional<Failure> cause_;  // the first failure
  std::optional<std::string> goodbye_;
  std::atomic<bool> delivered_waits_{false};
  std::atomic<bool> reset_waits_{false};
  std::atomic<bool> refusal_came_{false};
  std::atomic<bool> goodbye_came_{false};
  bool ending_ = false;
  bool input_ended_ = false;
  bool down_ = false;
  bool channel_list_told_ = false;  // used only in the module's Read
};

}  // namespace gxtool

#endif  // GX_SSH_LINK_H

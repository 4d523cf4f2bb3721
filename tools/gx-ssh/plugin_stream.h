// The byte stream for the module, over two descriptors.
#ifndef GX_SSH_PLUGIN_STREAM_H
#define GX_SSH_PLUGIN_STREAM_H

#include <gxmod/control_ssh.h>
#include <gxmod/frames.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "common/descriptor.h"
#include "gx-ssh/counted.h"
#include "gx-ssh/entrance.h"
#include "gx-ssh/plugin_input.h"
#include "gx-ssh/plugin_output.h"
#include "gx-ssh/stop_signal.h"

namespace gxtool {

// Events of the stream. Called on the module's threads and those of PluginOutput and Intake, which wait for the
// return.
class StreamObserver {
 public:
  // Called before any answer to the frame can arrive.
  virtual void OnFrameSent(const gxmod::FrameHeader& header) = 0;
  virtual void OnFrameReceived(const gxmod::FrameHeader& header) = 0;
  // The target has received everything that was sent before EndInput.
  virtual void OnInputDelivered(std::uint32_t connection) = 0;
  // The target of a connection could not be reached, with the reason in `why_not_opened`, or it reset the
  // connection, with an empty reason. The connection's Close follows.
  virtual void OnReset(std::uint32_t connection, std::string_view why_not_opened) = 0;
  // A channel list from the far side was dropped.
  virtual void OnChannelListDropped() = 0;
  // The far side ends normally; the end of the stream follows.
  virtual void OnGoodbye(const std::string& reason) = 0;
  // The input has ended, other than by Close. Called once; `reason` is for a message.
  virtual void OnInputEnd(const std::string& reason) = 0;
  // The far side has sent an impossible acknowledgement, which was ignored. Called once.
  virtual void OnFalseAcknowledgement() = 0;
  // See Entrance::Handler.
  virtual void OnEntered(std::uint32_t connection, Route route) = 0;
  // A connection waits at the entrance, see Entrance::Handler.
  virtual void OnWaiting() = 0;
  // The entrance has room for more connections, see Entrance::Handler. Called on any thread.
  virtual void OnRoom() = 0;
  // No more data can be sent. Called once.
  virtual void OnOutputFailed(const std::string& reason) = 0;

 protected:
  ~StreamObserver() = default;
};

struct StreamSettings {
  bool raw = false;  // send only the module's frames
  bool allow_channel_list =
      false;                  // otherwise channel lists from the far side, which open ports here, are dropped
  bool acknowledges = false;  // the far side supports acknowledgements
  bool guarded = false;       // use an entrance; otherwise all connections are forwarded
};

// Write takes the whole block or fails. The frames of common/control_frames.h do not reach the module: this
// class handles them or reports them. Threads: as for IPluginStreamRaw; Ping, Finish and silence on any.
class PluginStream final : public Counted<IPluginStreamRaw>,
                           PluginInput::Handler,
                           PluginOutput::Handler,
                           Entrance::Handler {
 public:
  // Owns the descriptors. `received`: bytes that were already read from `input`. `observer` outlives the
  // stream.
  PluginStream(Descriptor input, Descriptor output, std::string_view received, StreamSettings settings,
               StreamObserver& observer);
  ~PluginStream() override;

  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned flags) override;
  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned flags) override;
  std::uint32_t Close() override;

  // Sends a ping.
  void Ping();
  // Measurements of the line to the far side.
  LinePace::View line() const { return output_.line(); }
  // Null unless guarded. It may outlive the stream and is closed by then.
  const std::shared_ptr<Entrance>& entrance() const { return entrance_; }
  // How long the far side has been silent while a read was waiting: the module's, or the intake's if the far
  // side supports acknowledgements.
  std::chrono::milliseconds silence() const { return input_.silence(); }
  // Refuses more data from the module, sends a goodbye and waits, for at most `limit`, until everything is
  // sent.
  void Finish(std::string_view reason, std::chrono::milliseconds limit);

 private:
  bool Passes(const gxmod::FrameHeader& header) override;
  void OnTaken(const gxmod::FrameHeader& header, std::string_view payload) override;
  void OnUrgent(const gxmod::FrameHeader& header, std::string_view payload) override;
  void OnAcknowledge(const Acknowledgement& totals, bool rides) override { output_.Acknowledge(totals, rides); }
  void OnSendingFrame(const gxmod::FrameHeader& header) override { observer_.OnFrameSent(header); }
  void OnFrameQueued(const gxmod::FrameHeader& header) override {
    if (entrance_) entrance_->OnSent(header);
  }
  void OnWriteFailed(const std::string& reason) override { observer_.OnOutputFailed(reason); }
  void OnEntered(std::uint32_t connection, Route route) override {
    observer_.OnEntered(connection, std::move(route));
  }
  void OnRefused(std::uint32_t connection) override { input_.InsertClose(connection); }
  void OnInputSent(std::uint32_t connection) override;
  void OnWaiting() override { observer_.OnWaiting(); }
  void OnRoom() override { observer_.OnRoom(); }

  const Descriptor input_fd_;
  const Descriptor output_fd_;
  const StreamSettings settings_;
  StreamObserver& observer_;
  StopSignal stop_;
  PluginInput input_;
  PluginOutput output_;
  const std::shared_ptr<Entrance> entrance_;
  bool input_ended_ = false;  // used only in Read
  bool doubted_ = false;      // used only in OnUrgent
};

}  // namespace gxtool

#endif  // GX_SSH_PLUGIN_STREAM_H

// The byte stream that the module works on, over two descriptors.
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

// What the program learns from the stream. Called on threads of the module, which wait meanwhile.
class StreamObserver {
 public:
  virtual void OnFrameSent(const gxmod::FrameHeader& header) = 0;
  virtual void OnFrameReceived(const gxmod::FrameHeader& header) = 0;
  // The target of a connection has got everything that was sent before EndInput.
  virtual void OnInputDelivered(std::uint32_t connection) = 0;
  // The target of a connection was never reached, `why_not_opened` tells why, or without a reason has broken
  // the connection, as far as is known; its Close follows.
  virtual void OnReset(std::uint32_t connection, std::string_view why_not_opened) = 0;
  // A channel list from the far side was dropped.
  virtual void OnChannelListDropped() = 0;
  // The far side ends in order; the end of the stream follows.
  virtual void OnGoodbye(const std::string& reason) = 0;
  // Nothing more comes, and not because of Close. Once; `reason` is for a message.
  virtual void OnInputEnd(const std::string& reason) = 0;
  // The far side has acknowledged what cannot be; that counted for nothing. Once.
  virtual void OnFalseAcknowledgement() = 0;
  // See Entrance::Handler.
  virtual void OnEntered(std::uint32_t connection, Route route) = 0;
  // Somebody waits at the entrance, see Entrance::Handler.
  virtual void OnWaiting() = 0;
  // More connections may come to the entrance, see Entrance::Handler. On any thread.
  virtual void OnRoom() = 0;
  // Nothing more can be sent. Once.
  virtual void OnOutputFailed(const std::string& reason) = 0;

 protected:
  ~StreamObserver() = default;
};

struct StreamSettings {
  bool raw = false;                 // send no frames but the module's
  bool allow_channel_list = false;  // otherwise lists from the far side, which open ports here, are dropped
  bool acknowledges = false;        // the far side knows of acknowledgements
  bool guarded = false;             // has an entrance; otherwise everybody's connections are carried
};

// Write takes the whole block at once. Frames that only the two tools exchange never reach the module: pings
// are answered, the rest is reported. Threads: as IPluginStreamRaw says; Ping, Finish and silence on any.
class PluginStream final : public Counted<IPluginStreamRaw>,
                           PluginInput::Handler,
                           PluginOutput::Handler,
                           Entrance::Handler {
 public:
  // Owns the descriptors. `received` is what has been read from `input` already. `observer` outlives the
  // stream.
  PluginStream(Descriptor input, Descriptor output, std::string_view received, StreamSettings settings,
               StreamObserver& observer);
  ~PluginStream() override;

  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned flags) override;
  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned flags) override;
  std::uint32_t Close() override;

  // Asks the far side for a sign of life.
  void Ping();
  // What is known of the line to the far side.
  LinePace::View line() const { return output_.line(); }
  // Null unless guarded. It may outlive the stream, and is closed then.
  const std::shared_ptr<Entrance>& entrance() const { return entrance_; }
  // For how long the far side has been silent while somebody was waiting for it: the module, or the stream in
  // its place where the far side knows of acknowledgements.
  std::chrono::milliseconds silence() const { return input_.silence(); }
  // Takes no more from the module, says goodbye and waits until all is sent, at most `limit`.
  void Finish(std::string_view reason, std::chrono::milliseconds limit);

 private:
  bool Passes(const gxmod::FrameHeader& header) override;
  void OnTaken(const gxmod::FrameHeader& header, std::string_view payload) override;
  void OnUrgent(const gxmod::FrameHeader& header, std::string_view payload) override;
  void OnAcknowledge(const Acknowledgement& totals, bool rides) override { output_.Acknowledge(totals, rides); }
  void OnFrameSent(const gxmod::FrameHeader& header) override;
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
  bool input_ended_ = false;  // only in Read
  bool doubted_ = false;      // only in OnUrgent
};

}  // namespace gxtool

#endif  // GX_SSH_PLUGIN_STREAM_H

#include "gx-ssh/plugin_stream.h"

#include <utility>

#include "common/control_frames.h"

namespace gxtool {

PluginStream::PluginStream(Descriptor input, Descriptor output, std::string_view received,
                           StreamSettings settings, StreamObserver& observer)
    : input_fd_(std::move(input)),
      output_fd_(std::move(output)),
      settings_(settings),
      observer_(observer),
      input_(input_fd_.get(), stop_, *this, received, settings.acknowledges, settings.guarded),
      output_(output_fd_.get(), stop_, *this),
      entrance_(settings.guarded ? new Entrance(!settings.raw, *this) : nullptr) {
  SetNonBlocking(input_fd_.get(), true);
  SetNonBlocking(output_fd_.get(), true);
}

PluginStream::~PluginStream() {
  stop_.Raise();
  input_.Close();
  if (entrance_) entrance_->Close();
}

std::uint32_t PluginStream::Read(void* data, unsigned length, unsigned* got, unsigned /*flags*/) {
  *got = static_cast<unsigned>(input_.Read(data, length));
  if (*got > 0 || length == 0) return kGXModOk;
  if (!stop_.raised() && !std::exchange(input_ended_, true)) observer_.OnInputEnd(input_.end_reason());
  return kGXModFail;
}

std::uint32_t PluginStream::Write(const void* data, unsigned length, unsigned* written, unsigned /*flags*/) {
  input_.OnSending(length);
  std::string_view block(static_cast<const char*>(data), length);
  if (entrance_) block = entrance_->Filter(block);
  const bool taken = output_.Write(block.data(), block.size());
  *written = taken ? length : 0;
  return taken ? kGXModOk : kGXModFail;
}

std::uint32_t PluginStream::Close() {
  stop_.Raise();
  output_.Close();
  return kGXModOk;
}

void PluginStream::Ping() {
  if (!settings_.raw) output_.Ping();
}

void PluginStream::Finish(std::string_view reason, std::chrono::milliseconds limit) {
  output_.Finish(settings_.raw ? std::string() : MakeFrame(kGoodbyeFrame, 0, reason), limit);
}

bool PluginStream::Passes(const gxmod::FrameHeader& header) {
  if (IsControlFrame(header.type)) return false;
  if (header.type == gxmod::ConnectionType::ChannelList) return settings_.allow_channel_list;
  if (entrance_ && !entrance_->Admits(header)) return false;
  observer_.OnFrameReceived(header);
  return true;
}

void PluginStream::OnInputSent(std::uint32_t connection) {
  output_.Insert(MakeFrame(kEndOfInputFrame, connection, {}));
}

void PluginStream::OnUrgent(const gxmod::FrameHeader& header, std::string_view payload) {
  if (header.type == kPingFrame) output_.Answer(MakeFrame(kPongFrame, 0, payload));
  if (header.type == kPongFrame) output_.OnPong(payload);
  if (header.type != kAcknowledgementFrame || settings_.raw) return;
  const auto totals = ReadAcknowledgement(payload);
  if (!totals || output_.OnAcknowledgement(*totals) || std::exchange(doubted_, true)) return;
  observer_.OnFalseAcknowledgement();
}

void PluginStream::OnTaken(const gxmod::FrameHeader& header, std::string_view payload) {
  if (header.type == gxmod::ConnectionType::ChannelList) observer_.OnChannelListDropped();
  if (header.type == kEndOfInputFrame) observer_.OnInputDelivered(header.connection_id);
  if (header.type == kResetFrame) observer_.OnReset(header.connection_id, payload);
  if (header.type == kGoodbyeFrame) observer_.OnGoodbye(std::string(payload));
}

}  // namespace gxtool

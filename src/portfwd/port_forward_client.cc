#include "portfwd/port_forward_client.h"

#include <algorithm>
#include <new>
#include <utility>

#include "portfwd/channel_list.h"
#include "portfwd/frames.h"
#include "portfwd/stream_decorator.h"
#include "runtime/gxmod_runtime.h"
#include "stream/mem_buffer.h"

namespace {

constexpr unsigned long kReactorThreads = 1;

std::uint32_t NextChannelIndex() {
  static std::atomic<std::uint32_t> s_index{0};
  return ++s_index;
}

// Counts for the whole process, so that ids of several clients never meet on one stream; the first is 1.
std::uint32_t NextConnectionId() {
  static std::atomic<std::uint64_t> g_index{0};
  return static_cast<std::uint32_t>(++g_index);
}

}  // namespace

CRefObj<IPortForwardClientRaw> CreatePortForwardClient() { return {new CPortForwardClientRaw}; }

CPortForwardClientRaw::CPortForwardClientRaw(const Limits& limits) : limits_(limits) {
  reactor_.Run(kReactorThreads);
}

CPortForwardClientRaw::~CPortForwardClientRaw() { Stop(); }

std::uint32_t CPortForwardClientRaw::InitInstance(IPluginStreamRaw* stream) {
  CRefObj<IPluginStreamRaw> previous_stream(stream);
  CRefObj<CPluginWriter> previous_writer(stream != nullptr ? new CPluginWriter(stream) : nullptr);
  {
    CAutoLock lock(lock_);
    std::swap(plugin_stream_, previous_stream);
    std::swap(writer_, previous_writer);
    if (stream != nullptr) stopping_ = false;
  }
  if (stream == nullptr) return kGXModInvalidArgument;
  reader_.put_Owner(this);
  return kGXModOk;
}

std::uint32_t CPortForwardClientRaw::Run() {
  if (IsStopping() || !GetPluginStream()) return kGXModUnexpected;
  if (reader_.Run()) return kGXModOk;
  GXModLog(kGXModLogError, "[portfwd] no thread for the reader of the plugin stream");
  return kGXModFail;
}

std::uint32_t CPortForwardClientRaw::ExitInstance() {
  CRefObj<IPluginStreamRaw> stream;
  CRefObj<IPluginStreamRaw> reading;
  {
    CAutoLock lock(lock_);
    stopping_ = true;
    stream = plugin_stream_;
    std::swap(reading, reading_);
  }
  if (stream) stream->Close();
  if (reading && reading != stream) reading->Close();
  Stop();
  return kGXModOk;
}

void CPortForwardClientRaw::Stop() {
  std::map<std::uint32_t, CRefObj<MyHandler>> connections;
  Channels channels;
  {
    CAutoLock lock(lock_);
    stopping_ = true;
    connections.swap(connections_);
    channels.swap(channels_);
  }
  for (const auto& connection : connections) connection.second->Disconnect();
  for (const auto& channel : channels) channel->Detach();
  {
    CAutoLock lock(reactor_lock_);
    reactor_.Stop();
  }
  reader_.Stop();
}

CRefObj<IPluginStreamRaw> CPortForwardClientRaw::GetPluginStream() {
  CAutoLock lock(lock_);
  return plugin_stream_;
}

CRefObj<IPluginStreamRaw> CPortForwardClientRaw::StreamToRead() {
  CRefObj<IPluginStreamRaw> previous;
  CAutoLock lock(lock_);
  if (stopping_) return nullptr;
  previous = std::exchange(reading_, plugin_stream_);
  return plugin_stream_;
}

CRefObj<CPluginWriter> CPortForwardClientRaw::Writer() {
  CAutoLock lock(lock_);
  return writer_;
}

IChannelRaw* CPortForwardClientRaw::NewChannel(const char* name, const char* protocol, const char* remote) {
  const CRefObj<CChannelRaw> channel = NewChannelImpl(name, protocol, remote);
  if (!channel || !AddChannels({channel})) return nullptr;
  channel->Run();
  SaveChannels();
  return channel.get();
}

// A channel of this client that is not in the list yet.
CRefObj<CChannelRaw> CPortForwardClientRaw::NewChannelImpl(const char* name, const char* protocol,
                                                           const char* remote) {
  CRefObj<CChannelRaw> channel(new CChannelRaw);
  channel->put_PortForwardClient(this);
  channel->put_Name(name);
  channel->put_Protocol(protocol);
  channel->put_RemoteAddress(remote);
  return channel;
}

// False: the client is stopping and takes none.
bool CPortForwardClientRaw::AddChannels(const Channels& added) {
  CAutoLock lock(lock_);
  if (stopping_) return false;
  for (const auto& channel : added) {
    channel->put_Index(NextChannelIndex());
    channels_.push_back(channel);
  }
  return true;
}

std::uint32_t CPortForwardClientRaw::DeleteChannel2(unsigned long index) {
  const auto wanted = static_cast<std::uint32_t>(index);
  TakeChannel([wanted](CChannelRaw& channel) { return channel.get_Index() == wanted; });
  return SaveChannels();
}

std::uint32_t CPortForwardClientRaw::Erase(CChannelRaw* channel) {
  TakeChannel([channel](CChannelRaw& other) { return &other == channel; });
  return SaveChannels();
}

// Takes the first channel that matches out of the list and stops it for good.
template <class Matches>
CRefObj<CChannelRaw> CPortForwardClientRaw::TakeChannel(Matches matches) {
  CRefObj<CChannelRaw> taken;
  {
    CAutoLock lock(lock_);
    const auto found = std::find_if(channels_.begin(), channels_.end(),
                                    [&](const auto& channel) { return matches(*channel); });
    if (found == channels_.end()) return taken;
    taken = *found;
    channels_.erase(found);
  }
  taken->Detach();
  return taken;
}

IChannelRaw* CPortForwardClientRaw::GetChannel2(unsigned long index) {
  CAutoLock lock(lock_);
  for (const auto& channel : channels_) {
    if (channel->get_Index() == static_cast<std::uint32_t>(index)) return channel.get();
  }
  return nullptr;
}

IChannelRaw* CPortForwardClientRaw::GetChannel(unsigned long position) {
  CAutoLock lock(lock_);
  return position < channels_.size() ? channels_[position].get() : nullptr;
}

unsigned long CPortForwardClientRaw::GetChannelsCount() {
  CAutoLock lock(lock_);
  return channels_.size();
}

std::uint32_t CPortForwardClientRaw::TestChannel(const char* /*name*/, const char* /*protocol*/,
                                                 const char* text) {
  PostSendTask(reactor_, MakeSendTask(gxmod::ConnectionType::TestChannel, 0, text != nullptr ? text : ""));
  return kGXModOk;
}

void CPortForwardClientRaw::SetListener(IListener* listener) {
  if (listener == nullptr) return;
  CRefObj<IListener> previous(listener);
  CAutoLock lock(lock_);
  std::swap(listener_, previous);
}

CRefObj<IPortForwardClientRaw::IListener> CPortForwardClientRaw::Listener() {
  CAutoLock lock(lock_);
  return listener_;
}

void CPortForwardClientRaw::OnAccept(IBaseStream* stream, CChannelRaw* channel) {
  const StreamDecorator_T<MyHandler> decorated(stream);
  const CRefObj<MyHandler> connection(decorated.handler());
  CRefObj<MyHandler> replaced;  // an id that came round after 2^32 connections
  connection->put_Target(channel->GetTexts().remote_address);
  {
    CAutoLock lock(lock_);
    if (!stopping_) {
      const std::uint32_t id = NextConnectionId();
      connection->put_Owner(this);
      connection->put_Id(id);
      replaced = std::exchange(connections_[id], connection);
      return;
    }
  }
  connection->Disconnect();
}

CRefObj<MyHandler> CPortForwardClientRaw::FindStream(std::uint32_t id) {
  CAutoLock lock(lock_);
  const auto found = connections_.find(id);
  return found != connections_.end() ? found->second : nullptr;
}

void CPortForwardClientRaw::DeleteStream(std::uint32_t id) {
  decltype(connections_)::node_type removed;  // outlives the lock: its reference may be the last one
  CAutoLock lock(lock_);
  removed = connections_.extract(id);
}

// The far side may be waiting for the reader. The reactor may also hold data that it has just read and that
// must not come behind the Close.
bool CPortForwardClientRaw::LeaveCloseToReactor(std::uint32_t id) try {
  if (!reader_.IsCurrent() || IsStopping()) return false;
  SEND_TASK task = MakeSendTask(gxmod::ConnectionType::Close, id, "");
  if (!task.frame) return false;
  PostSendTask(reactor_, std::move(task));
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

CReactor_T<tcp_select_tracker>* CPortForwardClientRaw::get_Tracker() {
  CAutoLock lock(reactor_lock_);
  if (IsStopping()) return nullptr;
  return reactor_.Run(kReactorThreads) ? &reactor_ : nullptr;
}

void CPortForwardClientRaw::OnReceiveChannelsList(const char* text) {
  Channels received;
  for (const ChannelRecord& record : ParseChannelList(text)) {
    received.push_back(
        NewChannelImpl(record.name.c_str(), record.protocol.c_str(), record.remote_address.c_str()));
  }
  if (AddChannels(received)) {
    for (const auto& channel : received) channel->Run();
  }
  if (const CRefObj<IListener> listener = Listener()) listener->OnChannelsList(text);
}

void CPortForwardClientRaw::OnTestRespond(const char* text, bool ok) {
  if (const CRefObj<IListener> listener = Listener()) listener->OnTestRespond(text, ok);
}

// Tells the far side which channels there are now. Always 0.
std::uint32_t CPortForwardClientRaw::SaveChannels() {
  std::vector<ChannelRecord> records;
  {
    CAutoLock lock(lock_);
    for (const auto& channel : channels_) {
      CChannelRaw::Texts texts = channel->GetTexts();
      records.push_back({std::move(texts.name), std::move(texts.protocol), std::move(texts.remote_address)});
    }
  }
  const std::string text = FormatChannelList(records);
  GXModLog(kGXModLogInfo, "[portfwd] channel list: %s", text.c_str());
  PostSendTask(reactor_, MakeSendTask(gxmod::ConnectionType::ChannelList, 0, text));
  return 0;
}

// Without memory the task has no frame and does nothing.
SEND_TASK CPortForwardClientRaw::MakeSendTask(gxmod::ConnectionType type, std::uint32_t id,
                                              const std::string& payload) {
  const std::size_t frame_length = gxmod::kFrameHeaderBytes + payload.size();
  const CRefObj<IBuffer> frame = g_pMemAlloctor->GetFreeBuffer(frame_length);
  if (!FillBuffer2(id, type, frame, 0, payload.data(), static_cast<std::uint32_t>(payload.size()))) return {};
  frame->SetSize(frame_length);
  return {Writer(), frame};
}

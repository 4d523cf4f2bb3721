#include "portfwd/port_forward_client.h"

#include <cassert>
#include <new>
#include <utility>

#include "portfwd/channel_list.h"
#include "portfwd/fill_buffer.h"
#include "portfwd/stream_decorator.h"
#include "runtime/gxmod_runtime.h"
#include "stream/mem_buffer.h"

namespace {

constexpr unsigned long kReactorThreads = 1;

}  // namespace

CRefObj<IPortForwardClientRaw> CreatePortForwardClient() { return {new CPortForwardClientRaw}; }

CPortForwardClientRaw::CPortForwardClientRaw(const Limits& limits) : limits_(limits) {
  connections_.Open();
  channels_.Open();
  reactor_.Run(kReactorThreads);  // get_Tracker retries if this fails
}

CPortForwardClientRaw::~CPortForwardClientRaw() { Stop(); }

std::uint32_t CPortForwardClientRaw::InitInstance(IPluginStreamRaw* stream) {
  if (running_) ExitInstance();
  CRefObj<CPluginLink> link(stream != nullptr ? new CPluginLink(stream, limits_) : nullptr);
  {
    CAutoLock lock(lock_);
    std::swap(link_, link);
  }
  if (stream == nullptr) return kGXModInvalidArgument;
  stopping_ = false;
  connections_.Open();
  channels_.Open();
  return kGXModOk;
}

std::uint32_t CPortForwardClientRaw::Run() {
  const CRefObj<CPluginLink> link = Link();
  if (stopping_ || !link) return kGXModUnexpected;
  if (running_) return kGXModOk;
  reader_.put_Owner(this, link);
  running_ = reader_.Run();
  if (running_) return kGXModOk;
  GXModLog(kGXModLogError, "[portfwd] no thread for the reader of the plugin stream");
  return kGXModFail;
}

std::uint32_t CPortForwardClientRaw::ExitInstance() {
  stopping_ = true;
  if (const CRefObj<CPluginLink> link = Link()) link->Close();
  Stop();
  return kGXModOk;
}

void CPortForwardClientRaw::Stop() {
  assert(!reader_.IsCurrent());  // the reader would wait for itself
  stopping_ = true;
  const CConnectionRegistry::Connections connections = connections_.TakeAll();
  const CChannelRegistry::Channels channels = channels_.TakeAll();
  for (const auto& connection : connections) connection.second->Disconnect();
  for (const auto& channel : channels) channel->Detach();
  {
    CAutoLock lock(reactor_lock_);
    reactor_.Stop();
  }
  reader_.Stop();
  running_ = false;
}

CRefObj<IPluginStreamRaw> CPortForwardClientRaw::GetPluginStream() {
  const CRefObj<CPluginLink> link = Link();
  return link ? CRefObj<IPluginStreamRaw>(&link->stream()) : nullptr;
}

CRefObj<CPluginLink> CPortForwardClientRaw::Link() {
  CAutoLock lock(lock_);
  return link_;
}

IChannelRaw* CPortForwardClientRaw::NewChannel(const char* name, const char* protocol, const char* remote) {
  const CRefObj<CChannelRaw> channel = NewChannelImpl(name, protocol, remote);
  if (!channels_.Add({channel})) return nullptr;
  try {
    channel->Run();
    SaveChannels();
  } catch (...) {
    GXModLog(kGXModLogError, "[portfwd] no memory for channel %s", name != nullptr ? name : "");
    channels_.Remove(*channel);
    channel->Detach();
    return nullptr;
  }
  return channel.get();
}

// Creates a channel of this client that is not yet in the list.
CRefObj<CChannelRaw> CPortForwardClientRaw::NewChannelImpl(const char* name, const char* protocol,
                                                           const char* remote) {
  CRefObj<CChannelRaw> channel(new CChannelRaw);
  channel->put_PortForwardClient(this);
  channel->put_Name(name);
  channel->put_Protocol(protocol);
  channel->put_RemoteAddress(remote);
  return channel;
}

std::uint32_t CPortForwardClientRaw::DeleteChannel2(unsigned long index) {
  const auto wanted = static_cast<std::uint32_t>(index);
  if (const CRefObj<CChannelRaw> channel = channels_.Find(wanted)) return Erase(channel.get());
  return SaveChannels();
}

std::uint32_t CPortForwardClientRaw::Erase(CChannelRaw* channel) {
  const CRefObj<CChannelRaw> erased(channel);
  if (channels_.Remove(*channel)) channel->Detach();
  return SaveChannels();
}

IChannelRaw* CPortForwardClientRaw::GetChannel2(unsigned long index) {
  return channels_.Find(static_cast<std::uint32_t>(index)).get();
}

IChannelRaw* CPortForwardClientRaw::GetChannel(unsigned long position) { return channels_.At(position).get(); }

unsigned long CPortForwardClientRaw::GetChannelsCount() { return channels_.Count(); }

std::uint32_t CPortForwardClientRaw::TestChannel(const char* /*name*/, const char* /*protocol*/,
                                                 const char* text) {
  PostTask(reactor_, MakeSendTask(gxmod::ConnectionType::TestChannel, 0, text != nullptr ? text : ""));
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
  connection->put_Target(channel->GetTexts().remote_address);
  connection->Join(*this, CConnectionRegistry::NextId(), Link());
  if (!connections_.Add(connection)) connection->Disconnect();
}

// The reader must not wait for the far side, so the reactor sends the Close. This also keeps the Close behind
// data that the reactor has just read.
void CPortForwardClientRaw::OnEnd(MyHandler& connection, bool owes_close) {
  if (owes_close && reader_.IsCurrent()) {
    if (!PostClose(connection.get_Id())) {
      connection.put_OwesClose();
      closes_owed_ = true;
      return;
    }
  }
  connections_.Remove(connection);  // first, because the host's Write may throw
  if (owes_close && !reader_.IsCurrent()) connection.SendClose();
}

void CPortForwardClientRaw::BeforeFrame() {
  while (closes_owed_) {
    const CRefObj<MyHandler> ended = connections_.FindOwing();
    if (ended && !PostClose(ended->get_Id())) return;
    if (ended) connections_.Remove(*ended);
    closes_owed_ = static_cast<bool>(ended);
  }
}

// False when memory runs out.
bool CPortForwardClientRaw::PostClose(std::uint32_t id) try {
  PostTask(reactor_, MakeSendTask(gxmod::ConnectionType::Close, id, ""));
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

CReactor_T<tcp_select_tracker>* CPortForwardClientRaw::get_Tracker() {
  CAutoLock lock(reactor_lock_);
  if (stopping_) return nullptr;
  return reactor_.Run(kReactorThreads) ? &reactor_ : nullptr;
}

void CPortForwardClientRaw::OnReceiveChannelsList(const char* text) {
  CChannelRegistry::Channels received;
  for (const ChannelRecord& record : ParseChannelList(text)) {
    received.push_back(
        NewChannelImpl(record.name.c_str(), record.protocol.c_str(), record.remote_address.c_str()));
  }
  if (channels_.Add(received)) {
    for (const auto& channel : received) channel->Run();
  }
  if (const CRefObj<IListener> listener = Listener()) listener->OnChannelsList(text);
}

void CPortForwardClientRaw::OnTestRespond(const char* text, bool ok) {
  if (const CRefObj<IListener> listener = Listener()) listener->OnTestRespond(text, ok);
}

// Sends the current channels to the far side. Always 0.
std::uint32_t CPortForwardClientRaw::SaveChannels() {
  const std::string text = FormatChannelList(channels_.Records());
  GXModLog(kGXModLogInfo, "[portfwd] channel list: %s", text.c_str());
  PostTask(reactor_, MakeSendTask(gxmod::ConnectionType::ChannelList, 0, text));
  return kGXModOk;
}

// Throws std::bad_alloc.
SEND_TASK CPortForwardClientRaw::MakeSendTask(gxmod::ConnectionType type, std::uint32_t id,
                                              const std::string& payload) {
  const std::size_t frame_length = gxmod::kFrameHeaderBytes + payload.size();
  const CRefObj<IBuffer> frame = g_pMemAlloctor->GetFreeBuffer(frame_length);
  if (!FillBuffer2(id, type, frame, 0, payload.data(), static_cast<std::uint32_t>(payload.size()))) {
    throw std::bad_alloc();
  }
  frame->SetSize(frame_length);
  return {Link(), frame};
}

#include "portfwd/server_stream_thread.h"

#include <algorithm>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/gxmod_runtime.h"
#include "stream/mem_buffer.h"

namespace {

// The text before the first NUL byte.
std::string TextOf(const IBuffer* payload) {
  if (payload == nullptr || payload->GetPointer() == nullptr) return {};
  const std::string_view text(static_cast<const char*>(payload->GetPointer()), payload->GetSize());
  return std::string(text.substr(0, text.find('\0')));
}

}  // namespace

void CServerStreamThread::put_Owner(IFrameReceiver* owner, CRefObj<CPluginLink> link) {
  owner_ = owner;
  link_ = std::move(link);
}

bool CServerStreamThread::Stop() {
  if (link_) link_->flow().Stop();
  CBaseThread::Stop();
  return true;
}

bool CServerStreamThread::ReadData(unsigned char* data, unsigned int length) {
  if (!link_ || data == nullptr || length == 0) return false;
  for (unsigned done = 0; done < length;) {
    unsigned got = 0;
    if (link_->stream().Read(data + done, length - done, &got, 0) != 0 || got > length - done) return false;
    done += got;
  }
  return true;
}

bool CServerStreamThread::ThreadLoop() {
  if (IsStopRequested() || owner_ == nullptr) return false;
  owner_->BeforeFrame();
  unsigned char bytes[gxmod::kFrameHeaderBytes];
  if (!ReadData(bytes, sizeof bytes) || IsStopRequested()) return false;
  const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(bytes);
  CRefObj<IBuffer> payload;
  if (header.length != 0 && !ReadPayload(header.length, payload)) return false;
  if (IsStopRequested()) return false;
  try {
    if (header.length != 0 && !payload) throw std::bad_alloc();
    Dispatch(header, payload.get());
  } catch (...) {
    Lose(header);
  }
  return true;
}

bool CServerStreamThread::ReadPayload(std::uint32_t length, CRefObj<IBuffer>& payload) {
  payload = g_pMemAlloctor->GetFreeBuffer(length);
  if (!payload) return Skip(length);
  if (!ReadData(static_cast<unsigned char*>(payload->GetPointer()), length)) return false;
  payload->SetSize(length);
  return true;
}

bool CServerStreamThread::Skip(std::uint32_t length) {
  unsigned char dropped[4096];
  for (std::uint32_t part; length != 0; length -= part) {
    part = std::min<std::uint32_t>(length, sizeof dropped);
    if (!ReadData(dropped, part)) return false;
  }
  return true;
}

// Memory ran out while a frame was handled. Its connection ends, because its data would have a gap; the others
// continue.
void CServerStreamThread::Lose(const gxmod::FrameHeader& header) {
  if (header.type != gxmod::ConnectionType::Data && header.type != gxmod::ConnectionType::Close) {
    GXModLog(kGXModLogError, "[portfwd] a frame of type %u was lost: no memory, or its listener failed",
             static_cast<unsigned>(header.type));
    return;
  }
  GXModLog(kGXModLogError, "[portfwd] no memory for a frame, connection %u is disconnected",
           header.connection_id);
  if (const CRefObj<MyHandler> connection = owner_->FindStream(header.connection_id)) connection->Disconnect();
}

void CServerStreamThread::Dispatch(const gxmod::FrameHeader& header, IBuffer* payload) {
  switch (header.type) {
    case gxmod::ConnectionType::Data:
      if (payload != nullptr) DeliverData(header.connection_id, payload);
      break;
    case gxmod::ConnectionType::Close:
      if (const CRefObj<MyHandler> connection = owner_->FindStream(header.connection_id)) connection->End();
      break;
    case gxmod::ConnectionType::TestRespond:
      if (payload != nullptr) DeliverTestResponse(payload);
      break;
    case gxmod::ConnectionType::ChannelList:
      owner_->OnReceiveChannelsList(TextOf(payload).c_str());
      break;
    default:
      break;
  }
}

void CServerStreamThread::DeliverData(std::uint32_t connection_id, IBuffer* payload) {
  const CRefObj<MyHandler> connection = owner_->FindStream(connection_id);
  if (!connection || connection->link() != link_.get()) return;
  WaitForRoom(*connection, connection->Deliver(payload, static_cast<std::uint32_t>(payload->GetSize())));
}

void CServerStreamThread::DeliverTestResponse(IBuffer* payload) {
  gxmod::TestResponse response;
  if (!gxmod::DecodeTestResponse(payload->GetPointer(), payload->GetSize(), &response)) return;
  owner_->OnTestRespond(std::string(response.text, response.text_length).c_str(), response.status == 0);
}

// Waits, before the next frame is read, while a limit is exceeded.
void CServerStreamThread::WaitForRoom(MyHandler& connection, CFlowControl::Filled filled) {
  if (filled == CFlowControl::Filled::kConnection) {
    GXModLog(kGXModLogWarning, "[portfwd] connection %u takes its data too slowly, reading waits for it",
             connection.get_Id());
  } else if (filled == CFlowControl::Filled::kTotal) {
    GXModLog(kGXModLogWarning, "[portfwd] the connections take their data too slowly, reading waits for them");
  }
  while (const std::optional<std::uint32_t> late = link_->flow().WaitForRoom(connection.account())) {
    GXModLog(kGXModLogWarning, "[portfwd] connection %u held reading up for too long and is disconnected",
             *late);
    if (const CRefObj<MyHandler> cut = owner_->FindStream(*late)) cut->stream()->Disconnect(kStreamTimeout);
  }
}

#include "portfwd/server_stream_thread.h"

#include <algorithm>
#include <new>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "portfwd/connection_handler.h"
#include "portfwd/plugin_writer.h"
#include "portfwd/port_forward_client.h"
#include "runtime/gxmod_runtime.h"
#include "stream/mem_buffer.h"

namespace {

constexpr unsigned long kSlowClientPollMs = 10;
// A frame that has been on its way out for this long waits for the far side, which may in turn wait for us.
constexpr std::uint64_t kBlockedWriteMs = 100;

// Up to the first NUL byte.
std::string TextOf(const IBuffer* payload) {
  if (payload == nullptr || payload->GetPointer() == nullptr) return {};
  const std::string_view text(static_cast<const char*>(payload->GetPointer()), payload->GetSize());
  return std::string(text.substr(0, text.find('\0')));
}

}  // namespace

bool CServerStreamThread::Stop() {
  CBaseThread::Stop();
  return true;
}

bool CServerStreamThread::ReadData(unsigned char* data, unsigned int length) {
  if (!stream_ || data == nullptr || length == 0) return false;
  for (unsigned done = 0; done < length;) {
    unsigned got = 0;
    if (stream_->Read(data + done, length - done, &got, 0) != 0 || got > length - done) return false;
    done += got;
  }
  return true;
}

bool CServerStreamThread::ThreadLoop() {
  if (IsStopRequested() || owner_ == nullptr) return false;
  stream_ = owner_->StreamToRead();
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
    Lose(header.connection_id);
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

// Memory ran out on the way of a frame. Its connection must not go on with a hole in its data; the others
// shall.
void CServerStreamThread::Lose(std::uint32_t connection_id) {
  GXModLog(kGXModLogError, "[portfwd] no memory for a frame, connection %u is disconnected", connection_id);
  if (const CRefObj<MyHandler> connection = owner_->FindStream(connection_id)) connection->Disconnect();
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
  if (!connection) return;
  connection->Deliver(payload, static_cast<std::uint32_t>(payload->GetSize()));
  WaitForSlowClient(*connection);
}

void CServerStreamThread::DeliverTestResponse(IBuffer* payload) {
  gxmod::TestResponse response;
  if (!gxmod::DecodeTestResponse(payload->GetPointer(), payload->GetSize(), &response)) return;
  owner_->OnTestRespond(std::string(response.text, response.text_length).c_str(), response.status == 0);
}

// The wire has no window: what a local client does not take piles up here. Past the mark the far side has to
// wait, unless it waits for us already: then going on is what sets both free.
void CServerStreamThread::WaitForSlowClient(MyHandler& connection) {
  const CPortForwardClientRaw::Limits& limits = owner_->GetLimits();
  std::uint64_t owed = connection.Owed();
  if (owed <= limits.high_mark_bytes || !connection.stream()->IsConnect()) return;
  GXModLog(kGXModLogWarning, "[portfwd] connection %u takes its data too slowly, reading waits for it",
           connection.get_Id());
  std::uint64_t last_progress_ms = gettickcount();
  while (!IsStopRequested() && !owner_->IsStopping() && connection.stream()->IsConnect() &&
         connection.Owed() > limits.high_mark_bytes / 2) {
    const CRefObj<CPluginWriter> writer = owner_->Writer();
    if (writer && writer->IsBlockedFor(kBlockedWriteMs)) return;
    const std::uint64_t now_ms = gettickcount();
    if (connection.Owed() != owed) {
      owed = connection.Owed();
      last_progress_ms = now_ms;
    } else if (now_ms - last_progress_ms >= limits.stall_ms) {
      connection.stream()->Disconnect(kStreamTimeout);
      return;
    }
    WaitForTimeOut(kSlowClientPollMs);
  }
}

#include "portfwd/connection_handler.h"

#include <memory>
#include <new>

#include "portfwd/plugin_writer.h"
#include "portfwd/port_forward_client.h"
#include "stream/mem_buffer.h"

namespace {

constexpr unsigned long kReadBytes = 4096;

}  // namespace

bool MyHandler::Handle(IBaseStream* stream, IBaseStream::NotifyType type, IBuffer* buffer,
                       unsigned long length) {
  switch (type) {
    case IBaseStream::kConnected:
      OnConnected();
      break;
    case IBaseStream::kDisconnected:
      OnDisconnected();
      break;
    case IBaseStream::kReadStep:
      SendData(buffer, length);
      break;
    case IBaseStream::kWriteStep:
      owed_.fetch_sub(length, std::memory_order_relaxed);
      break;
    case IBaseStream::kReadDone:
      ReadInto(*stream, *buffer);
      break;
    default:
      break;
  }
  return true;
}

void MyHandler::Disconnect() { stream_->Disconnect(0); }

bool MyHandler::FillBuffer(gxmod::ConnectionType type, const void* payload, void* out, std::uint64_t length) {
  return ::FillBuffer(id_, type, payload, out, length);
}

bool MyHandler::FillBuffer2(gxmod::ConnectionType type, CRefObj<IBuffer> buffer, std::uint32_t offset,
                            const void* payload, std::uint32_t length) {
  return ::FillBuffer2(id_, type, std::move(buffer), offset, payload, length);
}

void MyHandler::Deliver(IBuffer* buffer, std::uint32_t length) {
  owed_.fetch_add(length, std::memory_order_relaxed);
  stream_->Write(buffer, length, kNoTimeout);
}

void MyHandler::OnConnected() {
  if (owner_ == nullptr || !owner_->Writer()) {
    stream_->WriteEnd();
    return;
  }
  announced_ = true;  // before the far side can answer
  if (!SendFrame(gxmod::ConnectionType::Connect, target_)) {
    announced_ = false;
    return Disconnect();
  }
  const CRefObj<IBuffer> buffer = g_pMemAlloctor->GetFreeBuffer(gxmod::kFrameHeaderBytes + kReadBytes);
  if (!buffer) return Disconnect();  // nobody would ever read from it
  ReadInto(*stream_, *buffer);
}

// The room for a header stays in front, see SendData.
void MyHandler::ReadInto(IBaseStream& stream, IBuffer& buffer) {
  buffer.SetSize(gxmod::kFrameHeaderBytes);
  stream.Read(&buffer, buffer.GetBufferSize() - buffer.GetSize(), kNoTimeout);
}

void MyHandler::OnDisconnected() {
  if (owner_ == nullptr) return;
  owner_->DeleteStream(id_);
  if (announced_ && !owner_->LeaveCloseToReactor(id_)) SendFrame(gxmod::ConnectionType::Close, {});
}

// The header goes in front of the last `length` bytes of the buffer: into its spare room or over bytes that
// have been sent. So the frame is written from where the socket has put it.
void MyHandler::SendData(IBuffer* buffer, unsigned long length) {
  const CRefObj<CPluginWriter> writer = Writer();
  if (!writer) return;
  const std::size_t frame_length = gxmod::kFrameHeaderBytes + length;
  char* frame = static_cast<char*>(buffer->GetPointer()) + buffer->GetSize() - frame_length;
  FillBuffer(gxmod::ConnectionType::Data, nullptr, frame, length);
  writer->WriteFrame(frame, frame_length);
}

// False: there is no memory. A frame without a payload needs none. Without a plugin stream the frame is lost.
bool MyHandler::SendFrame(gxmod::ConnectionType type, std::string_view payload) {
  const CRefObj<CPluginWriter> writer = Writer();
  if (!writer) return true;
  char header[gxmod::kFrameHeaderBytes];
  const std::size_t frame_length = sizeof header + payload.size();
  const std::unique_ptr<char[]> block(payload.empty() ? nullptr : new (std::nothrow) char[frame_length]);
  char* const frame = payload.empty() ? header : block.get();
  if (!FillBuffer(type, payload.data(), frame, payload.size())) return false;
  writer->WriteFrame(frame, frame_length);
  return true;
}

CRefObj<CPluginWriter> MyHandler::Writer() const { return owner_ != nullptr ? owner_->Writer() : nullptr; }

#include "portfwd/connection_handler.h"

#include <cstdlib>
#include <memory>

#include "portfwd/plugin_writer.h"
#include "portfwd/port_forward_client.h"

namespace {

constexpr unsigned long kFirstReadBytes = 4096;

struct Free {
  void operator()(void* block) const { std::free(block); }
};

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
    case IBaseStream::kReadStep: {
      const char* end = static_cast<const char*>(buffer->GetPointer()) + buffer->GetSize();
      SendFrame(gxmod::ConnectionType::Data, end - length, length);
      break;
    }
    case IBaseStream::kWriteStep:
      owed_.fetch_sub(length, std::memory_order_relaxed);
      break;
    case IBaseStream::kReadDone:
      buffer->SetSize(0);
      stream->Read(buffer, buffer->GetBufferSize() - buffer->GetSize(), kNoTimeout);
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
  SendFrame(gxmod::ConnectionType::Connect, target_.data(), target_.size());
  stream_->Read(nullptr, kFirstReadBytes, kNoTimeout);
}

void MyHandler::OnDisconnected() {
  if (owner_ == nullptr) return;
  owner_->DeleteStream(id_);
  SendFrame(gxmod::ConnectionType::Close, nullptr, 0);
}

// Without memory or a plugin stream the frame is lost; the connection goes on.
void MyHandler::SendFrame(gxmod::ConnectionType type, const void* payload, std::size_t length) {
  const CRefObj<CPluginWriter> writer = owner_ != nullptr ? owner_->Writer() : nullptr;
  if (!writer) return;
  const std::size_t frame_length = gxmod::kFrameHeaderBytes + length;
  const std::unique_ptr<void, Free> frame(std::malloc(frame_length));
  if (FillBuffer(type, payload, frame.get(), length)) writer->WriteFrame(frame.get(), frame_length);
}

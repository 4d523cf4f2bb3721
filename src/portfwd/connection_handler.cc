#include "portfwd/connection_handler.h"

#include <cassert>
#include <memory>
#include <new>
#include <utility>

#include "portfwd/frame_alloctor.h"

namespace {

// One request. A read takes what fits into the buffer; each step, and so each frame, has at most 4,096 bytes.
constexpr unsigned long kReadBytes = 16 * CFrameAlloctor::kReadBytes;

}  // namespace

void MyHandler::Join(IConnectionOwner& owner, std::uint32_t id, CRefObj<CPluginLink> link) {
  owner_ = &owner;
  id_ = id;
  link_ = std::move(link);
  if (link_) link_->flow().Open(account_, id);
}

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
      return SendData(*buffer, length);
    case IBaseStream::kWriteStep:
      if (link_) link_->flow().Took(account_);
      break;
    case IBaseStream::kReadDone:
      stream->Read(nullptr, kReadBytes, kNoTimeout);
      break;
    case IBaseStream::kWriteDone:
      if (link_) link_->flow().Released(account_, length);
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

// Counts the block before queuing it, because the reactor may send it at once.
CFlowControl::Filled MyHandler::Deliver(IBuffer* buffer, std::uint32_t length) {
  assert(link_);
  if (end_delivered_) return CFlowControl::Filled::kNothing;
  const CFlowControl::Filled filled = link_->flow().Queued(account_, length);
  stream_->Write(buffer, length, kNoTimeout);
  return filled;
}

void MyHandler::End() {
  if (std::exchange(end_delivered_, true)) return;
  stream_->WriteEnd();
}

void MyHandler::OnConnected() {
  if (!link_) {
    stream_->WriteEnd();
    return;
  }
  State is_new = State::kNew;  // changed before the far side can answer
  if (!state_.compare_exchange_strong(is_new, State::kAnnounced)) return;
  if (!SendFrame(gxmod::ConnectionType::Connect, target_)) {
    state_ = State::kNew;
    return Disconnect();
  }
  stream_->Read(nullptr, kReadBytes, kNoTimeout);
}

void MyHandler::OnDisconnected() {
  if (owner_ == nullptr) return;
  if (link_) link_->flow().Close(account_);
  owner_->OnEnd(*this, state_.exchange(State::kEnded) == State::kAnnounced);
}

// Writes the header before the last `length` bytes of the buffer: into the room that CFrameAlloctor reserves,
// or over bytes that were already sent. So the frame is sent from where the data was read. Afterwards the
// buffer's contents are no longer needed.
bool MyHandler::SendData(IBuffer& buffer, unsigned long length) {
  const std::size_t frame_length = gxmod::kFrameHeaderBytes + length;
  assert(buffer.GetSize() >= frame_length);
  char* const frame = static_cast<char*>(buffer.GetPointer()) + buffer.GetSize() - frame_length;
  FillBuffer(gxmod::ConnectionType::Data, nullptr, frame, length);
  buffer.SetSize(gxmod::kFrameHeaderBytes);
  return link_->writer().WriteFrame(frame, frame_length);
}

// Returns false when there is no memory. A frame without a payload needs none.
bool MyHandler::SendFrame(gxmod::ConnectionType type, std::string_view payload) {
  char header[gxmod::kFrameHeaderBytes];
  const std::size_t frame_length = sizeof header + payload.size();
  const std::unique_ptr<char[]> block(payload.empty() ? nullptr : new (std::nothrow) char[frame_length]);
  char* const frame = payload.empty() ? header : block.get();
  if (!FillBuffer(type, payload.data(), frame, payload.size())) return false;
  link_->writer().WriteFrame(frame, frame_length);
  return true;
}

#include "portfwd/fill_buffer.h"

#include <cstring>

bool FillBuffer(std::uint32_t connection_id, gxmod::ConnectionType type, const void* payload, void* out,
                std::uint64_t length) {
  if (out == nullptr) return false;
  gxmod::EncodeFrameHeader({static_cast<std::uint32_t>(length), connection_id, type}, out);
  if (payload != nullptr && length != 0) {
    std::memcpy(static_cast<unsigned char*>(out) + gxmod::kFrameHeaderBytes, payload, length);
  }
  return true;
}

bool FillBuffer2(std::uint32_t connection_id, gxmod::ConnectionType type, CRefObj<IBuffer> buffer,
                 std::uint32_t offset, const void* payload, std::uint32_t length) {
  if (!buffer) return false;
  return FillBuffer(connection_id, type, payload, static_cast<unsigned char*>(buffer->GetPointer()) + offset,
                    length);
}

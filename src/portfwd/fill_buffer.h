// Builds frames in memory. The format is described in gxmod/frames.h.
#ifndef GX_PORTFWD_FILL_BUFFER_H
#define GX_PORTFWD_FILL_BUFFER_H

#include <cstdint>

#include "gxmod/frames.h"
#include "gxmod/reference.h"
#include "stream/ibuffer.h"

// Writes the header to `out`, followed by `length` bytes of `payload` unless it is null. `out` has room for
// both. `length` is stored as 32 bits. Returns false when `out` is null.
bool FillBuffer(std::uint32_t connection_id, gxmod::ConnectionType type, const void* payload, void* out,
                std::uint64_t length);

// The same, at `offset` of the buffer. Returns false when the buffer is empty.
bool FillBuffer2(std::uint32_t connection_id, gxmod::ConnectionType type, CRefObj<IBuffer> buffer,
                 std::uint32_t offset, const void* payload, std::uint32_t length);

#endif  // GX_PORTFWD_FILL_BUFFER_H

// Building frames in memory. The format itself is in gxmod/frames.h.
#ifndef GX_PORTFWD_FRAMES_H
#define GX_PORTFWD_FRAMES_H

#include <cstdint>

#include "gxmod/frames.h"
#include "gxmod/reference.h"
#include "stream/ibuffer.h"

// Writes the header at `out` and, when `payload` is not null, `length` bytes of payload behind it; the caller
// has sized `out` for both. `length` is stored as 32 bits. False: `out` is null.
bool FillBuffer(std::uint32_t connection_id, gxmod::ConnectionType type, const void* payload, void* out,
                std::uint64_t length);

// The same at `offset` of the buffer. False: the buffer is empty.
bool FillBuffer2(std::uint32_t connection_id, gxmod::ConnectionType type, CRefObj<IBuffer> buffer,
                 std::uint32_t offset, const void* payload, std::uint32_t length);

#endif  // GX_PORTFWD_FRAMES_H

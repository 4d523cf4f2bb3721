// Scattered bytes (iovec).
#ifndef GX_COMMON_PIECES_H
#define GX_COMMON_PIECES_H

#include <sys/uio.h>

#include <cstddef>
#include <span>

namespace gxtool {

constexpr std::size_t TotalBytes(std::span<const iovec> pieces) {
  std::size_t total = 0;
  for (const iovec& piece : pieces) total += piece.iov_len;
  return total;
}

}  // namespace gxtool

#endif  // GX_COMMON_PIECES_H

// Queued bytes for a slow reader. Holds no memory while empty.
#ifndef GX_PEER_BYTE_QUEUE_H
#define GX_PEER_BYTE_QUEUE_H

#include <sys/uio.h>

#include <cstddef>
#include <deque>
#include <span>
#include <string>
#include <string_view>

namespace gxtool {

class ByteQueue {
 public:
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  void Append(std::string_view bytes);
  // Describes bytes at the front, in as many entries as `out` has; returns the number of entries used.
  std::size_t Front(std::span<iovec> out) const;
  // Drops `count` bytes from the front, at most size().
  void Consume(std::size_t count);
  void Clear();

 private:
  std::deque<std::string> chunks_;
  std::size_t consumed_ = 0;  // bytes of the first chunk
  std::size_t size_ = 0;
};

}  // namespace gxtool

#endif  // GX_PEER_BYTE_QUEUE_H

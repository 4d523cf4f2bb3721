#include "peer/byte_queue.h"

#include <algorithm>

namespace gxtool {
namespace {

constexpr std::size_t kChunkBytes = 64 * 1024;

}  // namespace

void ByteQueue::Append(std::string_view bytes) {
  size_ += bytes.size();
  while (!bytes.empty()) {
    if (chunks_.empty() || chunks_.back().size() == kChunkBytes) chunks_.emplace_back().reserve(kChunkBytes);
    std::string& last = chunks_.back();
    const std::size_t taken = std::min(bytes.size(), kChunkBytes - last.size());
    last.append(bytes.substr(0, taken));
    bytes.remove_prefix(taken);
  }
}

std::size_t ByteQueue::Front(std::span<iovec> out) const {
  std::size_t used = 0;
  std::size_t skip = consumed_;
  for (auto chunk = chunks_.begin(); chunk != chunks_.end() && used < out.size(); ++chunk, skip = 0) {
    // sendmsg's interface is non-const, but it only reads.
    out[used++] = {const_cast<char*>(chunk->data()) + skip, chunk->size() - skip};
  }
  return used;
}

void ByteQueue::Consume(std::size_t count) {
  size_ -= count;
  consumed_ += count;
  while (!chunks_.empty() && consumed_ >= chunks_.front().size()) {
    consumed_ -= chunks_.front().size();
    chunks_.pop_front();
  }
}

void ByteQueue::Clear() { *this = ByteQueue(); }

}  // namespace gxtool

// The bytes that go through a tunnel: 64-bit words that count up from a number that only this direction of this
// connection has. A byte that is changed, lost, doubled or another connection's does not fit its place. The end
// is in the bytes, too: a word that has all bits of its place inverted.
//
// Made and checked in the cheapest way there is, additions and comparisons of whole words, so that the tunnel
// is what limits a transfer.
#ifndef GX_BENCH_TUNNEL_PATTERN_H
#define GX_BENCH_TUNNEL_PATTERN_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace gxbench {

inline constexpr std::size_t kBlockWords = 16 * 1024;
inline constexpr std::size_t kWordBytes = sizeof(std::uint64_t);

// A number far away from those of all others; `n` tells them apart.
std::uint64_t PatternKey(std::uint64_t n);

class PatternWriter {
 public:
  explicit PatternWriter(std::uint64_t key) : next_(key), words_(kBlockWords) {}

  // Both are valid until the next call.
  std::span<const std::byte> Block();
  std::span<const std::byte> End();

 private:
  std::uint64_t next_;
  std::vector<std::uint64_t> words_;
};

class PatternReader {
 public:
  explicit PatternReader(std::uint64_t key) : next_(key), words_(kBlockWords) {}

  // Where the next bytes go. Take() is told how many came, and throws WrongBytes when they are.
  std::span<std::byte> Space();
  void Take(std::size_t bytes);

  bool ended() const { return ended_; }
  std::uint64_t bytes() const { return bytes_; }

 private:
  void Check(std::span<const std::uint64_t> words);

  std::uint64_t next_;
  std::vector<std::uint64_t> words_;
  std::size_t held_ = 0;  // bytes of a word that is not whole yet
  std::uint64_t bytes_ = 0;
  bool ended_ = false;
};

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_PATTERN_H

// The test data for tunnels: 64-bit words that count up from a number unique to each direction of each
// connection. So a changed, lost, doubled or misdirected byte does not match its position. The end is marked by
// a word with all bits inverted.
//
// It is made and checked cheaply, by additions and comparisons of whole words, so that the tunnel limits the
// transfer.
#ifndef GX_BENCH_TUNNEL_PATTERN_H
#define GX_BENCH_TUNNEL_PATTERN_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace gxbench {

inline constexpr std::size_t kBlockWords = 16 * 1024;
inline constexpr std::size_t kWordBytes = sizeof(std::uint64_t);

// The first number for direction `n`, far away from those of all other directions.
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

  // The space for the next received bytes. Take() gets their number and throws WrongBytes if they are wrong.
  std::span<std::byte> Space();
  void Take(std::size_t bytes);

  bool ended() const { return ended_; }
  std::uint64_t bytes() const { return bytes_; }

 private:
  void Check(std::span<const std::uint64_t> words);

  std::uint64_t next_;
  std::vector<std::uint64_t> words_;
  std::size_t held_ = 0;  // bytes of an incomplete word
  std::uint64_t bytes_ = 0;
  bool ended_ = false;
};

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_PATTERN_H

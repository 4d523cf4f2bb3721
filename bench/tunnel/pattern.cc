#include "pattern.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "failure.h"

namespace gxbench {

std::uint64_t PatternKey(std::uint64_t n) {
  std::uint64_t key = (n + 1) * 0x9E3779B97F4A7C15;
  key = (key ^ (key >> 30)) * 0xBF58476D1CE4E5B9;
  key = (key ^ (key >> 27)) * 0x94D049BB133111EB;
  return key ^ (key >> 31);
}

std::span<const std::byte> PatternWriter::Block() {
  const std::uint64_t first = next_;
  for (std::size_t i = 0; i < kBlockWords; ++i) words_[i] = first + i;
  next_ += kBlockWords;
  return std::as_bytes(std::span(words_));
}

std::span<const std::byte> PatternWriter::End() {
  words_[0] = ~next_;
  return std::as_bytes(std::span(words_).first(1));
}

std::span<std::byte> PatternReader::Space() { return std::as_writable_bytes(std::span(words_)).subspan(held_); }

void PatternReader::Take(std::size_t bytes) {
  bytes_ += bytes;
  held_ += bytes;
  const std::size_t whole = held_ / kWordBytes;
  Check(std::span(words_).first(whole));
  held_ %= kWordBytes;
  std::memcpy(words_.data(), words_.data() + whole, held_);
  if (ended_ && held_ != 0) throw WrongBytes("bytes come after the end");
}

void PatternReader::Check(std::span<const std::uint64_t> words) {
  std::uint64_t difference = 0;
  for (std::size_t i = 0; i < words.size(); ++i) difference |= words[i] ^ (next_ + i);
  if (difference == 0) {
    next_ += words.size();
    return;
  }
  std::size_t wrong = 0;
  while (words[wrong] == next_ + wrong) ++wrong;
  ended_ = words[wrong] == ~(next_ + wrong) && wrong + 1 == words.size();
  if (!ended_) {
    const std::uint64_t before = (words.size() - wrong) * kWordBytes + held_ % kWordBytes;
    throw WrongBytes("wrong bytes at offset " + std::to_string(bytes_ - before));
  }
}

}  // namespace gxbench

// Bytes that tell where they belong: every 8 of them name their sender and their place.
#ifndef GX_TESTS_SUPPORT_PATTERN_H
#define GX_TESTS_SUPPORT_PATTERN_H

#include "support/standard.h"

namespace gxtest {

// `length` bytes of the pattern of `seed`, from byte `from` on.
inline std::string Pattern(std::size_t length, std::uint32_t seed = 1, std::uint64_t from = 0) {
  const std::size_t skipped = from % sizeof from;
  std::string bytes;
  bytes.reserve(skipped + length + sizeof from);
  for (std::uint64_t place = from / sizeof from; bytes.size() < skipped + length; ++place) {
    const std::uint64_t word = place << 32 | seed;
    bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
  }
  return bytes.substr(skipped, length);
}

// The seed of a pattern that begins so.
inline std::uint32_t SeedOf(const std::string& beginning) {
  std::uint32_t seed = 0;
  if (beginning.size() >= sizeof seed) std::memcpy(&seed, beginning.data(), sizeof seed);
  return seed;
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_PATTERN_H

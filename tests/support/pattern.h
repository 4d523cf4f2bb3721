// Bytes that tell where they belong: every 8 of them name their connection and their place in it.
#ifndef GX_TESTS_SUPPORT_PATTERN_H
#define GX_TESTS_SUPPORT_PATTERN_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace gxtest {

// One word of a pattern: 32 bits of place, 24 bits of seed and a check of 8 bits, so that a word can be
// recognised at any offset.
struct PatternWord {
  static constexpr std::size_t kBytes = 8;

  std::uint32_t place;
  std::uint32_t seed;

  std::uint64_t Encoded() const {
    const std::uint64_t value = std::uint64_t{place} << 32 | (seed & 0xFFFFFF) << 8;
    return value | (value * 0x9E3779B97F4A7C15U >> 56);
  }
  static std::optional<PatternWord> Decode(const char* bytes) {
    std::uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    const PatternWord word{static_cast<std::uint32_t>(value >> 32),
                           static_cast<std::uint32_t>(value >> 8) & 0xFFFFFF};
    if (word.Encoded() != value) return std::nullopt;
    return word;
  }
};

// `length` bytes of the pattern of `seed`, from byte `from` on.
inline std::string Pattern(std::size_t length, std::uint32_t seed = 1, std::uint64_t from = 0) {
  const std::uint64_t first = from / PatternWord::kBytes;
  const std::size_t skipped = from % PatternWord::kBytes;
  std::string bytes((skipped + length + PatternWord::kBytes - 1) / PatternWord::kBytes * PatternWord::kBytes,
                    '\0');
  for (std::size_t at = 0; at < bytes.size(); at += PatternWord::kBytes) {
    const std::uint64_t word =
        PatternWord{static_cast<std::uint32_t>(first + at / PatternWord::kBytes), seed}.Encoded();
    std::memcpy(&bytes[at], &word, sizeof word);
  }
  return bytes.substr(skipped, length);
}

// Empty: `bytes` are those of the pattern of `seed` from byte `from` on. Otherwise what has gone wrong, judged
// by the first word that is whole behind the first wrong byte.
inline std::string PatternFault(std::string_view bytes, std::uint32_t seed, std::uint64_t from = 0) {
  const std::string right = Pattern(bytes.size(), seed, from);
  if (bytes == right) return {};
  const auto wrong =
      static_cast<std::size_t>(std::mismatch(bytes.begin(), bytes.end(), right.begin()).first - bytes.begin());
  const std::string where = " at byte " + std::to_string(from + wrong) + " of " + std::to_string(seed);
  for (std::size_t at = wrong; at + PatternWord::kBytes <= bytes.size() && at < wrong + 2 * PatternWord::kBytes;
       ++at) {
    const auto word = PatternWord::Decode(&bytes[at]);
    if (!word) continue;
    if (word->seed != (seed & 0xFFFFFF)) return "bytes of " + std::to_string(word->seed) + where;
    const auto shift = static_cast<std::int64_t>(std::uint64_t{word->place} * PatternWord::kBytes) -
                       static_cast<std::int64_t>(from + at);
    if (shift > 0) return std::to_string(shift) + " bytes lost, or overtaken," + where;
    if (shift < 0) return std::to_string(-shift) + " bytes twice, or late," + where;
  }
  return "garbage" + where;
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_PATTERN_H

#include "gx-ssh/readable.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace gxtool {
namespace {

// Length of the character that begins with `byte`; 0 for an invalid first byte.
std::size_t Length(unsigned char byte) {
  if (byte < 0x80) return 1;
  if (byte >= 0xC2 && byte < 0xE0) return 2;
  if (byte >= 0xE0 && byte < 0xF0) return 3;
  if (byte >= 0xF0 && byte < 0xF5) return 4;
  return 0;
}

// Decodes the character of `length` bytes at the front of `text`. Returns 0, a control character, when it is
// malformed.
std::uint32_t Decode(std::string_view text, std::size_t length) {
  constexpr std::uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (length < 2) return length == 0 ? 0 : static_cast<unsigned char>(text.front());
  std::uint32_t character = static_cast<unsigned char>(text.front()) & (0x7Fu >> length);
  for (const char c : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) return 0;
    character = character << 6 | (byte & 0x3Fu);
  }
  const bool surrogate = character >= 0xD800 && character < 0xE000;
  return character < kShortest[length] || character > 0x10FFFF || surrogate ? 0 : character;
}

bool IsHarmless(std::uint32_t c) {
  const bool control = c < 0x20 || (c >= 0x7F && c < 0xA0);
  const bool order =
      c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
  return !control && !order;
}

void AppendHex(std::string_view bytes, std::string* out) {
  constexpr char kHex[] = "0123456789abcdef";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out->append("\\x").append({kHex[byte >> 4], kHex[byte & 15]});
  }
}

}  // namespace

std::string Readable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t length = Length(static_cast<unsigned char>(text.front()));
    const std::uint32_t character = length <= text.size() ? Decode(text, length) : 0;
    const std::string_view bytes = text.substr(0, character == 0 ? 1 : length);
    text.remove_prefix(bytes.size());
    IsHarmless(character) ? void(out += bytes) : AppendHex(bytes, &out);
  }
  return out;
}

std::string_view WholeCharacters(std::string_view text) {
  for (std::size_t tail = 1; tail <= std::min<std::size_t>(3, text.size()); ++tail) {
    const std::size_t length = Length(static_cast<unsigned char>(text[text.size() - tail]));
    if (length > tail) return text.substr(0, text.size() - tail);
    if (length != 0) break;
  }
  return text;
}

}  // namespace gxtool

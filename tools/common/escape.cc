#include "common/escape.h"

namespace gxtool {
namespace {

void AppendEscaped(char c, std::string* out) {
  constexpr char kHex[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  switch (c) {
    case '\\':
      out->append("\\\\");
      return;
    case '\n':
      out->append("\\n");
      return;
    case '\r':
      out->append("\\r");
      return;
    case '\t':
      out->append("\\t");
      return;
    default:
      break;
  }
  if (byte >= 0x20 && byte < 0x7f) {
    out->push_back(c);
  } else {
    out->append("\\x").append({kHex[byte >> 4], kHex[byte & 15]});
  }
}

}  // namespace

std::string Escape(std::string_view text, std::size_t max_bytes) {
  std::string out;
  for (const char c : text.substr(0, max_bytes)) AppendEscaped(c, &out);
  if (text.size() > max_bytes) out += "...";
  return out;
}

}  // namespace gxtool

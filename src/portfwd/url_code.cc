#include "portfwd/url_code.h"

#include <locale>
#include <sstream>

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";
constexpr std::size_t kEscapeBytes = 3;

bool IsPlain(unsigned char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

// Reads as a stream does: leading blanks, a sign or one digit alone are taken as well.
bool ReadHex(const std::string& digits, int& value) {
  std::istringstream stream(digits);
  stream.imbue(std::locale::classic());
  return static_cast<bool>(stream >> std::hex >> value);
}

}  // namespace

std::string url_encode(const std::string& text) {
  std::string encoded;
  for (const char* next = text.c_str(); *next != '\0'; ++next) {
    const auto byte = static_cast<unsigned char>(*next);
    if (IsPlain(byte)) {
      encoded += *next;
    } else {
      encoded += '%';
      encoded += kHexDigits[byte >> 4];
      encoded += kHexDigits[byte & 0x0F];
    }
  }
  return encoded;
}

std::string url_decode(const std::string& text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i] == '+' ? ' ' : text[i];
      continue;
    }
    int value = 0;
    if (text.size() - i < kEscapeBytes || !ReadHex(text.substr(i + 1, kEscapeBytes - 1), value)) return {};
    decoded += static_cast<char>(value & 0xFF);
    i += kEscapeBytes - 1;
  }
  return decoded;
}

// HOST:PORT, as in options and Connect frames.
//
// The grammar is strict, because the allow list compares the result and two programs must read a text alike. A
// host is a name (letters, digits, '-' and '_' in labels separated by single dots), an IPv4 address of four
// plain decimal numbers, or an IPv6 address in brackets. A port is a decimal number from 1 to 65535 without
// leading zeros. So 127.1, 0x7f000001, 127.0.0.1., 127.0.0.1:022, [fe80::1%eth0]:22 and [::ffff:127.0.0.1]:22
// are invalid.
#ifndef GX_COMMON_HOST_PORT_H
#define GX_COMMON_HOST_PORT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gxtool {

struct HostPort {
  std::string host;  // a name in lower case, or an address in canonical form without brackets
  std::uint16_t port = 0;

  // True when the host is an address.
  bool IsNumeric() const;
  // Text that ParseHostPort reads back.
  std::string ToString() const;

  friend bool operator==(const HostPort&, const HostPort&) = default;
};

// The two halves, unchecked. On failure `*why` (may be null) gets the reason, for people.
struct HostPortText {
  std::string_view host;  // without brackets
  std::string_view port;
  bool bracketed = false;
};
std::optional<HostPortText> SplitHostPort(std::string_view text, std::string* why = nullptr);

// Parse and check one half.
std::optional<std::string> ParseHost(std::string_view host, bool bracketed, std::string* why = nullptr);
std::optional<std::uint16_t> ParsePort(std::string_view port, std::string* why = nullptr);

std::optional<HostPort> ParseHostPort(std::string_view text, std::string* why = nullptr);

}  // namespace gxtool

#endif  // GX_COMMON_HOST_PORT_H

// HOST:PORT as options and Connect frames carry it.
//
// The grammar is strict, because an allow-list is compared with what it yields and two programs must not read
// one text differently: a host is a name (letters, digits, '-' and '_', labels divided by single dots), an IPv4
// address of four plain decimal numbers, or an IPv6 address in brackets; a port is a decimal number from 1 to
// 65535 without leading zeros. So 127.1, 0x7f000001, 127.0.0.1., 127.0.0.1:022, [fe80::1%eth0]:22 and
// [::ffff:127.0.0.1]:22 are no targets.
#ifndef GX_COMMON_HOST_PORT_H
#define GX_COMMON_HOST_PORT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gxtool {

struct HostPort {
  std::string host;  // a name in lower case, or an address in its one canonical form, without brackets
  std::uint16_t port = 0;

  // The host is an address.
  bool IsNumeric() const;
  // What ParseHostPort reads as the same value.
  std::string ToString() const;

  friend bool operator==(const HostPort&, const HostPort&) = default;
};

// The two halves, without a look at what they say. On failure `*why`, when given, tells a person the reason.
struct HostPortText {
  std::string_view host;  // without brackets
  std::string_view port;
  bool bracketed = false;
};
std::optional<HostPortText> SplitHostPort(std::string_view text, std::string* why = nullptr);

// Each half by itself.
std::optional<std::string> ParseHost(std::string_view host, bool bracketed, std::string* why = nullptr);
std::optional<std::uint16_t> ParsePort(std::string_view port, std::string* why = nullptr);

std::optional<HostPort> ParseHostPort(std::string_view text, std::string* why = nullptr);

}  // namespace gxtool

#endif  // GX_COMMON_HOST_PORT_H

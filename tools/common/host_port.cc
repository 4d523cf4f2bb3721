#include "common/host_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>

#include "common/parse_failure.h"

namespace gxtool {
namespace {

constexpr std::size_t kNameBytes = 253;
constexpr std::size_t kLabelBytes = 63;
constexpr std::size_t kAddressBytes = 45;

// Independent of the locale.
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHexDigit(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f'); }
bool IsLower(char c) { return c >= 'a' && c <= 'z'; }
char ToLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsLabel(std::string_view label) {
  return !label.empty() && label.size() <= kLabelBytes && label.front() != '-' && label.back() != '-' &&
         std::all_of(label.begin(), label.end(),
                     [](char c) { return IsLower(c) || IsDigit(c) || c == '-' || c == '_'; });
}

bool IsName(std::string_view name) {
  if (name.size() > kNameBytes) return false;
  while (true) {
    const std::size_t dot = name.find('.');
    if (!IsLabel(name.substr(0, dot))) return false;
    if (dot == std::string_view::npos) return true;
    name.remove_prefix(dot + 1);
  }
}

// Resolvers read names like 127.1, 0x7f.1 and 2130706433 as addresses.
bool EndsInNumber(std::string_view name) {
  const std::string_view last = name.substr(name.rfind('.') + 1);
  if (last.substr(0, 2) == "0x") return std::all_of(last.begin() + 2, last.end(), IsHexDigit);
  return std::all_of(last.begin(), last.end(), IsDigit);
}

std::optional<std::string> ParseIPv6(std::string_view text, std::string* why) {
  in6_addr address;
  char canonical[INET6_ADDRSTRLEN];
  // inet_pton stops at a NUL and would ignore the rest.
  if (text.size() > kAddressBytes || text.find('\0') != std::string_view::npos ||
      inet_pton(AF_INET6, std::string(text).c_str(), &address) != 1) {
    return ParseFailure(why, "the text in brackets is not an IPv6 address");
  }
  if (IN6_IS_ADDR_V4MAPPED(&address))
    return ParseFailure(why, "an IPv4 address is written as four decimal numbers");
  return inet_ntop(AF_INET6, &address, canonical, sizeof canonical);
}

}  // namespace

bool HostPort::IsNumeric() const { return host.find(':') != std::string::npos || EndsInNumber(host); }

std::string HostPort::ToString() const {
  const bool v6 = host.find(':') != std::string::npos;
  return (v6 ? '[' + host + ']' : host) + ':' + std::to_string(port);
}

std::optional<HostPortText> SplitHostPort(std::string_view text, std::string* why) {
  if (text.substr(0, 1) == "[") {
    const std::size_t end = text.find("]:");
    if (end == std::string_view::npos) return ParseFailure(why, "an IPv6 target reads [ADDRESS]:PORT");
    return HostPortText{text.substr(1, end - 1), text.substr(end + 2), true};
  }
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return ParseFailure(why, "a target reads HOST:PORT");
  if (text.find(':', colon + 1) != std::string_view::npos)
    return ParseFailure(why, "an IPv6 target reads [ADDRESS]:PORT");
  return HostPortText{text.substr(0, colon), text.substr(colon + 1), false};
}

std::optional<std::string> ParseHost(std::string_view host, bool bracketed, std::string* why) {
  if (bracketed) return ParseIPv6(host, why);
  if (host.size() > kNameBytes) return ParseFailure(why, "the host name is too long");
  std::string name(host);
  std::transform(name.begin(), name.end(), name.begin(), ToLower);
  if (!IsName(name)) return ParseFailure(why, "the host is neither a name nor an address");
  in_addr address;
  // inet_pton is strict enough: four decimal numbers without leading zeros.
  if (EndsInNumber(name) && inet_pton(AF_INET, name.c_str(), &address) != 1) {
    return ParseFailure(why, "an IPv4 address is written as four decimal numbers");
  }
  return name;
}

std::optional<std::uint16_t> ParsePort(std::string_view port, std::string* why) {
  std::uint16_t value = 0;
  const char* const end = port.data() + port.size();
  const auto [rest, error] = std::from_chars(port.data(), end, value);
  if (error != std::errc() || rest != end || port.front() == '0') {
    return ParseFailure(why, "a port is a decimal number from 1 to 65535");
  }
  return value;
}

std::optional<HostPort> ParseHostPort(std::string_view text, std::string* why) {
  const auto split = SplitHostPort(text, why);
  if (!split) return std::nullopt;
  auto host = ParseHost(split->host, split->bracketed, why);
  if (!host) return std::nullopt;
  const auto port = ParsePort(split->port, why);
  if (!port) return std::nullopt;
  return HostPort{std::move(*host), *port};
}

}  // namespace gxtool

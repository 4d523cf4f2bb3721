// The addresses where gx-ssh itself listens, and their targets.
#ifndef GX_SSH_FORWARD_H
#define GX_SSH_FORWARD_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gxtool {

struct ListenAddress {
  std::string unix_path;   // if empty: `address` and `port`
  std::string address;     // numeric, or kAnyAddress
  std::uint16_t port = 0;  // 0: any

  bool operator==(const ListenAddress&) const = default;
};

// All addresses of this computer, IPv6 and IPv4.
inline constexpr const char* kAnyAddress = "*";

struct Forward {
  ListenAddress at;
  std::string target;  // as written in a Connect frame
};

// For example "127.0.0.1:0", "[::1]:8080", "unix:/run/box". On failure `*why` gets the reason, for people.
std::optional<ListenAddress> ParseListen(std::string_view text, std::string* why);

// In the form of ssh's -L: "[BIND:]PORT:HOST:HOSTPORT", where the absolute path of a socket may replace
// "[BIND:]PORT" and "HOST:HOSTPORT".
std::optional<Forward> ParseForward(std::string_view text, std::string* why);

}  // namespace gxtool

#endif  // GX_SSH_FORWARD_H

// Where gx-ssh listens itself, and what each of these places leads to.
#ifndef GX_SSH_FORWARD_H
#define GX_SSH_FORWARD_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gxtool {

struct ListenAddress {
  std::string unix_path;   // empty: `address` and `port`
  std::string address;     // numeric, or kAnyAddress
  std::uint16_t port = 0;  // 0: any

  bool operator==(const ListenAddress&) const = default;
};

// Every address of this computer, of IPv6 and IPv4.
inline constexpr const char* kAnyAddress = "*";

struct Forward {
  ListenAddress at;
  std::string target;  // as a Connect frame carries it
};

// "127.0.0.1:0", "[::1]:8080", "unix:/run/box". On failure `*why` tells a person the reason.
std::optional<ListenAddress> ParseListen(std::string_view text, std::string* why);

// As -L of ssh: "[BIND:]PORT:HOST:HOSTPORT", where the absolute path of a socket may stand for "[BIND:]PORT"
// and for "HOST:HOSTPORT".
std::optional<Forward> ParseForward(std::string_view text, std::string* why);

}  // namespace gxtool

#endif  // GX_SSH_FORWARD_H

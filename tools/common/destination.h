// Where a connection shall lead, as options and Connect frames name it: HOST:PORT, or unix:PATH.
//
// A path is absolute, has no empty part and none that is "." or "..", and no NUL, so that two texts which
// differ do not name one socket but for links, and a list of paths can be compared as text.
#ifndef GX_COMMON_DESTINATION_H
#define GX_COMMON_DESTINATION_H

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "common/host_port.h"

namespace gxtool {

struct UnixSocket {
  std::string path;

  friend bool operator==(const UnixSocket&, const UnixSocket&) = default;
};

using Destination = std::variant<HostPort, UnixSocket>;

// On failure `*why`, when given, tells a person the reason.
std::optional<UnixSocket> ParseUnixSocket(std::string_view path, std::string* why = nullptr);
std::optional<Destination> ParseDestination(std::string_view text, std::string* why = nullptr);

// What ParseDestination reads as the same value. A path may hold any byte but NUL.
std::string ToString(const Destination& destination);
// Of such a text.
bool NamesUnixSocket(std::string_view text);

}  // namespace gxtool

#endif  // GX_COMMON_DESTINATION_H

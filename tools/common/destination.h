// The target of a connection, as in options and Connect frames: HOST:PORT or unix:PATH.
//
// A path is absolute and has no empty, "." or ".." parts and no NUL. So, apart from links, different texts name
// different sockets, and a list of paths can be compared as text.
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

// On failure `*why` (may be null) gets the reason, for people.
std::optional<UnixSocket> ParseUnixSocket(std::string_view path, std::string* why = nullptr);
std::optional<Destination> ParseDestination(std::string_view text, std::string* why = nullptr);

// Text that ParseDestination reads back. A path may contain any byte except NUL.
std::string ToString(const Destination& destination);
// True for a text in the form unix:PATH.
bool NamesUnixSocket(std::string_view text);

}  // namespace gxtool

#endif  // GX_COMMON_DESTINATION_H

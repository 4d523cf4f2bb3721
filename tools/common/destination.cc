#include "common/destination.h"

#include <sys/un.h>

#include "common/parse_failure.h"

namespace gxtool {
namespace {

constexpr std::string_view kScheme = "unix:";
constexpr std::size_t kPathBytes = sizeof(sockaddr_un{}.sun_path) - 1;

bool HasPlainParts(std::string_view path) {
  while (!path.empty()) {
    path.remove_prefix(1);  // the slash
    const std::string_view part = path.substr(0, path.find('/'));
    if (part.empty() || part == "." || part == "..") return false;
    path.remove_prefix(part.size());
  }
  return true;
}

}  // namespace

std::optional<UnixSocket> ParseUnixSocket(std::string_view path, std::string* why) {
  if (!path.starts_with('/')) return ParseFailure(why, "a socket's path begins with a slash");
  if (path.size() > kPathBytes) return ParseFailure(why, "the socket's path is too long");
  if (path.find('\0') != std::string_view::npos || !HasPlainParts(path)) {
    return ParseFailure(why, "a socket's path has no empty parts, no '.', no '..' and no NUL");
  }
  return UnixSocket{std::string(path)};
}

std::optional<Destination> ParseDestination(std::string_view text, std::string* why) {
  if (!text.starts_with(kScheme)) return ParseHostPort(text, why);
  if (const auto host_of_that_name = ParseHostPort(text)) return host_of_that_name;
  return ParseUnixSocket(text.substr(kScheme.size()), why);
}

bool NamesUnixSocket(std::string_view text) { return text.starts_with("unix:/"); }

std::string ToString(const Destination& destination) {
  const auto* const socket = std::get_if<UnixSocket>(&destination);
  return socket != nullptr ? std::string(kScheme) + socket->path : std::get<HostPort>(destination).ToString();
}

}  // namespace gxtool

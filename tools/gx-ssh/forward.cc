#include "gx-ssh/forward.h"

#include <algorithm>
#include <span>
#include <vector>

#include "common/destination.h"

namespace gxtool {
namespace {

constexpr std::string_view kScheme = "unix:";
constexpr const char* kSyntax =
    "it is [BIND:]PORT:HOST:HOSTPORT, or has a path in place of [BIND:]PORT or HOST:HOSTPORT";

// The text between two colons. A path at the end may contain colons.
struct Field {
  std::string_view text;  // without brackets
  bool bracketed = false;

  bool IsPath() const { return !bracketed && text.starts_with('/'); }
};

std::optional<std::vector<Field>> Split(std::string_view text) {
  std::vector<Field> fields;
  for (;;) {
    const bool bracketed = text.starts_with('[');
    const std::size_t close = bracketed ? text.find(']') : 0;
    if (close == std::string_view::npos) return std::nullopt;
    const bool is_last_path = !fields.empty() && text.starts_with('/');
    const std::size_t end = is_last_path ? std::string_view::npos : text.find(':', close);
    if (bracketed && close + 1 != std::min(end, text.size())) return std::nullopt;
    fields.push_back({bracketed ? text.substr(1, close - 1) : text.substr(0, end), bracketed});
    if (end == std::string_view::npos) return fields;
    text.remove_prefix(end + 1);
  }
}

std::optional<std::uint16_t> ParseListenPort(std::string_view port, std::string* why) {
  return port == "0" ? 0 : ParsePort(port, why);
}

std::optional<std::string> ParseListenHost(std::string_view host, bool bracketed, std::string* why) {
  auto parsed = ParseHost(host, bracketed, why);
  if (!parsed || HostPort{*parsed, 1}.IsNumeric()) return parsed;
  *why = "the address must be numeric";
  return std::nullopt;
}

std::optional<std::string> ParseBind(const Field& bind, std::string* why) {
  if (!bind.bracketed && (bind.text.empty() || bind.text == "*")) return kAnyAddress;
  return bind.text == "localhost" ? "127.0.0.1" : ParseListenHost(bind.text, bind.bracketed, why);
}

std::optional<ListenAddress> ParseLocal(std::span<const Field> fields, std::string* why) {
  if (fields.size() == 1 && fields.front().IsPath())
    return ListenAddress{std::string(fields.front().text), {}, 0};
  const auto bind = fields.size() == 1 ? "127.0.0.1" : ParseBind(fields.front(), why);
  const auto port = bind ? ParseListenPort(fields.back().text, why) : std::nullopt;
  if (!port) return std::nullopt;
  return ListenAddress{{}, *bind, *port};
}

std::optional<Destination> ParseRemote(std::span<const Field> fields, std::string* why) {
  if (fields.size() == 1) return ParseUnixSocket(fields.front().text, why);
  const auto host = ParseHost(fields.front().text, fields.front().bracketed, why);
  const auto port = host ? ParsePort(fields.back().text, why) : std::nullopt;
  if (!port) return std::nullopt;
  return HostPort{*host, *port};
}

}  // namespace

std::optional<ListenAddress> ParseListen(std::string_view text, std::string* why) {
  if (text.starts_with(kScheme)) {
    *why = "a path is missing";
    if (text == kScheme) return std::nullopt;
    return ListenAddress{std::string(text.substr(kScheme.size())), {}, 0};
  }
  const auto halves = SplitHostPort(text, why);
  if (!halves) return std::nullopt;
  const auto host = ParseListenHost(halves->host, halves->bracketed, why);
  const auto port = host ? ParseListenPort(halves->port, why) : std::nullopt;
  if (!port) return std::nullopt;
  return ListenAddress{{}, *host, *port};
}

std::optional<Forward> ParseForward(std::string_view text, std::string* why) {
  *why = kSyntax;
  const auto fields = Split(text);
  if (!fields || fields->size() < 2) return std::nullopt;
  const std::size_t remote = fields->back().IsPath() ? 1 : 2;
  const std::span<const Field> all(*fields);
  if (all.size() != remote + 1 && all.size() != remote + 2) return std::nullopt;
  const auto at = ParseLocal(all.first(all.size() - remote), why);
  const auto target = at ? ParseRemote(all.last(remote), why) : std::nullopt;
  if (!target) return std::nullopt;
  return Forward{*at, ToString(*target)};
}

}  // namespace gxtool

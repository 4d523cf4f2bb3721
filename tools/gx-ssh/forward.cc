#include "gx-ssh/forward.h"

#include <algorithm>
#include <vector>

#include "link/host_port.h"

namespace gxtool {
namespace {

constexpr std::string_view kScheme = "unix:";
constexpr const char* kSyntax = "it is [BIND:]PORT:HOST:HOSTPORT, where a path may stand for [BIND:]PORT";

// What stands between two colons.
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
    const std::size_t end = text.find(':', close);
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
  const auto fields = Split(text);
  const std::size_t count = fields ? fields->size() : 0;
  *why = kSyntax;
  if (count != 3 && count != 4) return std::nullopt;
  Forward forward;
  const Field& first = fields->front();
  if (count == 3 && first.IsPath()) {
    forward.at.unix_path = first.text;
  } else {
    const auto bind = count == 4 ? ParseBind(first, why) : "127.0.0.1";
    const auto port = bind ? ParseListenPort((*fields)[count - 3].text, why) : std::nullopt;
    if (!port) return std::nullopt;
    forward.at.address = *bind;
    forward.at.port = *port;
  }
  const Field& host = (*fields)[count - 2];
  const auto target_host = ParseHost(host.text, host.bracketed, why);
  const auto target_port = target_host ? ParsePort(fields->back().text, why) : std::nullopt;
  if (!target_port) return std::nullopt;
  forward.target = HostPort{*target_host, *target_port}.ToString();
  return forward;
}

}  // namespace gxtool

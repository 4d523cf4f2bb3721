// The peer's allow-list. An input is lines of entries, an empty line, and lines of targets; without an empty
// line the last line is the target. Only targets that an entry names pass, and the system's resolver, which
// accepts more spellings, takes none of our names for an address.
#include <netdb.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <vector>

#include "check.h"
#include "peer/allow_list.h"

using gxtool::AllowList;
using gxtool::HostPort;
using gxtool::ParseDestination;
using gxtool::ParseHostPort;

namespace {

// The address that the system's resolver takes the host for, in its canonical form; empty: a name.
std::string NumericHost(const std::string& host) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
  char text[NI_MAXHOST];
  Check(getnameinfo(list->ai_addr, list->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0);
  return text;
}

void CheckTarget(const HostPort& target) {
  Check(ParseHostPort(target.ToString()) == target);
  Check(target.port != 0);
  Check(NumericHost(target.host) == (target.IsNumeric() ? target.host : ""));
}

// The path is in the one spelling that the allow-list compares.
void CheckPath(const std::string& path) {
  Check(path.size() < 108 && path.find('\0') == std::string::npos);
  Check(std::filesystem::path(path).is_absolute());
  Check(std::filesystem::path(path).lexically_normal() == path && path.find("//") == std::string::npos);
  Check(!path.ends_with('/'));
}

bool IsSame(const std::string& a, const std::string& b) {
  const auto is_loopback = [](const std::string& host) { return host == "127.0.0.1" || host == "::1"; };
  return a == b || (a == "localhost" && is_loopback(b)) || (b == "localhost" && is_loopback(a));
}

// A second implementation: an entry is a pattern of two parts, each equal to the target's or a star.
bool Names(const std::string& entry, const HostPort& target) {
  const std::size_t colon = entry.rfind(':');
  const std::string host = entry.substr(0, colon);
  const std::string port = entry.substr(colon + 1);
  const auto same = ParseHostPort((host == "*" ? "any" : host) + ':' + (port == "*" ? "1" : port));
  return same && (host == "*" || IsSame(same->host, target.host)) &&
         (port == "*" || same->port == target.port) && (host != "*" || port != "*");
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text + '\n');
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

void CheckDestination(const AllowList& list, const std::vector<std::string>& entries, const std::string& text) {
  const auto destination = ParseDestination(text);
  if (!destination) return;
  Check(ParseDestination(ToString(*destination)) == destination);
  if (const auto* const socket = std::get_if<gxtool::UnixSocket>(&*destination)) {
    CheckPath(socket->path);
    const bool is_entry = std::find(entries.begin(), entries.end(), "unix:" + socket->path) != entries.end();
    return Check(list.Permits(*destination) == is_entry);
  }
  const auto* const target = &std::get<HostPort>(*destination);
  CheckTarget(*target);
  const bool named = std::any_of(entries.begin(), entries.end(),
                                 [&](const std::string& entry) { return Names(entry, *target); });
  Check(list.Permits(*target) == named);
  const bool local_named = list.Permits(HostPort{"127.0.0.1", target->port});
  Check(list.PermitsAddress(*target, "127.0.0.1") == local_named);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::string> lines = Lines(Text(data, size));
  const auto middle = std::find(lines.begin(), lines.end() - 1, "");
  const std::vector<std::string> entries(lines.begin(), middle);
  AllowList list;
  for (const std::string& entry : entries) {
    std::string why;
    Check(list.Add(entry, &why) == why.empty());
  }
  for (auto target = middle; target != lines.end(); ++target) CheckDestination(list, entries, *target);
  return 0;
}

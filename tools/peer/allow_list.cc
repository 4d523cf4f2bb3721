#include "peer/allow_list.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <iterator>

namespace gxtool {
namespace {

constexpr std::string_view kLocalhost = "localhost";
constexpr const char* kLoopback[] = {"127.0.0.1", "::1"};

bool IsNearV4(std::uint32_t address) {
  const std::uint32_t net = address >> 24;
  return net == 0 || net == 127 || net >= 224 || address >> 16 == 0xa9fe;
}

// True for addresses that stay on this computer or its link, and for text that is not an address.
bool IsNear(const std::string& text) {
  in_addr v4;
  in6_addr v6;
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return IsNearV4(ntohl(v4.s_addr));
  if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return true;
  return IN6_IS_ADDR_UNSPECIFIED(&v6) || IN6_IS_ADDR_LOOPBACK(&v6) || IN6_IS_ADDR_LINKLOCAL(&v6) ||
         IN6_IS_ADDR_MULTICAST(&v6) || IN6_IS_ADDR_V4MAPPED(&v6) || IN6_IS_ADDR_V4COMPAT(&v6);
}

}  // namespace

AllowList AllowList::Default() {
  AllowList list;
  for (const char* const address : kLoopback) list.entries_.push_back({address, 22});
  return list;
}

AllowList AllowList::Any() {
  AllowList list;
  list.entries_ = {{std::nullopt, std::nullopt}};
  return list;
}

bool AllowList::Add(std::string_view entry, std::string* why) {
  if (NamesUnixSocket(entry)) {
    const auto socket = ParseDestination(entry, why);
    if (socket) sockets_.push_back(std::get<UnixSocket>(*socket));
    return socket.has_value();
  }
  const auto text = SplitHostPort(entry, why);
  if (!text) return false;
  const bool any_host = text->host == "*" && !text->bracketed;
  const bool any_port = text->port == "*";
  if (any_host && any_port) {
    *why = "'*' stands for one part only; --allow-any permits everything";
    return false;
  }
  Entry parsed;
  if (!any_host && !(parsed.host = ParseHost(text->host, text->bracketed, why))) return false;
  if (!any_port && !(parsed.port = ParsePort(text->port, why))) return false;
  if (parsed.host == kLocalhost) {
    for (const char* const address : kLoopback) entries_.push_back({address, parsed.port});
  } else {
    entries_.push_back(std::move(parsed));
  }
  return true;
}

bool AllowList::Permits(const Destination& target) const {
  const auto* const socket = std::get_if<UnixSocket>(&target);
  if (socket == nullptr) return PermitsTcp(std::get<HostPort>(target));
  return std::find(sockets_.begin(), sockets_.end(), *socket) != sockets_.end();
}

bool AllowList::PermitsTcp(const HostPort& target) const {
  if (target.host == kLocalhost) {
    return std::any_of(std::begin(kLoopback), std::end(kLoopback), [&](const char* address) {
      return PermitsTcp({address, target.port});
    });
  }
  return std::any_of(entries_.begin(), entries_.end(), [&target](const Entry& entry) {
    return (!entry.host || *entry.host == target.host) && (!entry.port || *entry.port == target.port);
  });
}

std::optional<std::vector<std::uint16_t>> AllowList::Ports() const {
  std::vector<std::uint16_t> ports;
  for (const Entry& entry : entries_) {
    if (!entry.port) return std::nullopt;
    ports.push_back(*entry.port);
  }
  return ports;
}

bool AllowList::PermitsAddress(const HostPort& target, const std::string& address) const {
  return !IsNear(address) || PermitsTcp({address, target.port});
}

}  // namespace gxtool

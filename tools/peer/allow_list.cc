#include "peer/allow_list.h"

#include <algorithm>

namespace gxtool {

AllowList AllowList::Default() {
  AllowList list;
  list.entries_ = {{"127.0.0.1", 22}, {"::1", 22}};
  return list;
}

AllowList AllowList::Any() {
  AllowList list;
  list.entries_ = {{std::nullopt, std::nullopt}};
  return list;
}

bool AllowList::Add(std::string_view entry, std::string* why) {
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
  entries_.push_back(std::move(parsed));
  return true;
}

bool AllowList::Permits(const HostPort& target) const {
  return std::any_of(entries_.begin(), entries_.end(), [&target](const Entry& entry) {
    return (!entry.host || *entry.host == target.host) && (!entry.port || *entry.port == target.port);
  });
}

}  // namespace gxtool

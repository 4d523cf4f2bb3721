#include "peer/lookup.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>

namespace gxtool {

LookupResult SystemLookup(const std::string& host) { return LookupWith(getaddrinfo, freeaddrinfo, host); }

LookupResult LookupWith(GetAddrInfo get, FreeAddrInfo free, const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  LookupResult result;
  if (const int code = get(host.c_str(), nullptr, &hints, &list); code != 0) {
    result.error = gai_strerror(code);
    return result;
  }
  const std::unique_ptr<addrinfo, FreeAddrInfo> owner(list, free);
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    char text[NI_MAXHOST];
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0) {
      result.addresses.emplace_back(text);
    }
  }
  return result;
}

}  // namespace gxtool

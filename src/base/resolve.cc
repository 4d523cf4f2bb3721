#include "base/resolve.h"

#include <netdb.h>

#include <memory>

#include "base/dns_cache.h"

namespace gxbase {

int ResolveHostname(const std::string& hostname, int family, std::vector<IPAddress>* addresses) {
  if (addresses == nullptr) return EAI_FAIL;
  addresses->clear();
  if (hostname.find('\0') != std::string::npos)
    return EAI_NONAME;  // the resolver would read only the part before it
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE;
  hints.ai_family = family;
  addrinfo* list = nullptr;
  const int code = dnscache_getaddrinfo(hostname.c_str(), nullptr, &hints, &list);
  if (code != 0) return code;
  const std::unique_ptr<addrinfo, decltype(&dnscache_freeaddrinfo)> owner(list, &dnscache_freeaddrinfo);
  for (; list != nullptr; list = list->ai_next) {
    IPAddress ip;
    if (family != AF_UNSPEC && list->ai_family != family) continue;
    if (IPFromAddrInfo(list, &ip)) addresses->push_back(ip);
  }
  return 0;
}

}  // namespace gxbase

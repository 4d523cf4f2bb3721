// From a host name to its addresses.
#ifndef GX_PEER_LOOKUP_H
#define GX_PEER_LOOKUP_H

#include <netdb.h>

#include <functional>
#include <string>
#include <vector>

namespace gxtool {

struct LookupResult {
  std::vector<std::string> addresses;  // numeric, in the order in which they are to be tried
  std::string error;                   // why there are none
};

// Takes a name, never an address. May block for as long as it likes: it is called on a thread that does nothing
// else, one name at a time, and may still be running when the peer that asked is gone.
using Lookup = std::function<LookupResult(const std::string& host)>;

// Asks the system's resolver.
LookupResult SystemLookup(const std::string& host);

// Asks a resolver with the two functions of the system's.
using GetAddrInfo = int (*)(const char* node, const char* service, const addrinfo* hints, addrinfo** list);
using FreeAddrInfo = void (*)(addrinfo* list);
LookupResult LookupWith(GetAddrInfo get, FreeAddrInfo free, const std::string& host);

}  // namespace gxtool

#endif  // GX_PEER_LOOKUP_H

// Host names to addresses, through the DNS cache.
#ifndef GX_BASE_RESOLVE_H
#define GX_BASE_RESOLVE_H

#include <string>
#include <vector>

#include "base/socket_address.h"

namespace gxbase {

// Replaces `*addresses` with the addresses of `hostname` that belong to `family` (0: any), in the resolver's
// order; the resolver may list an address several times. Returns 0, or the resolver's code (EAI_...). Blocks as
// long as the resolver does. Threads: any.
int ResolveHostname(const std::string& hostname, int family, std::vector<IPAddress>* addresses);

}  // namespace gxbase

#endif  // GX_BASE_RESOLVE_H

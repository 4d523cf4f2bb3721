// Looks names up through a cache file, so that a resolver that is down keeps nobody from a host that was
// reached before.
#ifndef GX_PEER_CACHED_LOOKUP_H
#define GX_PEER_CACHED_LOOKUP_H

#include <string>

#include "peer/lookup.h"

namespace gxtool {

// False in a program that looks no names up.
extern const bool kHasDnsCache;

struct DnsCacheOptions {
  std::string file;      // empty: no cache
  unsigned max_age = 0;  // seconds; 0: none
  unsigned refresh = 0;  // seconds
};

// The cache is the process's: the last call counts. It goes with the static objects; a process that ends while
// a look-up hangs has to keep these.
Lookup CachedLookup(const DnsCacheOptions& options);

}  // namespace gxtool

#endif  // GX_PEER_CACHED_LOOKUP_H

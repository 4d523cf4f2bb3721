// Saves the addresses of names in a file, so that a host that was reached before is found while name servers
// are down.
#ifndef GX_PEER_NAME_CACHE_H
#define GX_PEER_NAME_CACHE_H

#include <string>

#include "peer/lookup.h"

namespace gxtool {

// False in a build without the cache.
extern const bool kHasNameCache;

struct NameCacheOptions {
  std::string file;      // empty: no cache
  unsigned max_age = 0;  // seconds; 0: none
  unsigned refresh = 0;  // seconds
};

// There is one cache per process: the last call counts. It lives until static objects are destroyed.
AnswerCache OpenNameCache(const NameCacheOptions& options);

}  // namespace gxtool

#endif  // GX_PEER_NAME_CACHE_H

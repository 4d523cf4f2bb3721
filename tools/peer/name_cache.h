// Keeps the addresses of names in a file, so that name servers that are down keep nobody from a host that was
// reached before.
#ifndef GX_PEER_NAME_CACHE_H
#define GX_PEER_NAME_CACHE_H

#include <string>

#include "peer/lookup.h"

namespace gxtool {

// False in a program that can keep none.
extern const bool kHasNameCache;

struct NameCacheOptions {
  std::string file;      // empty: no cache
  unsigned max_age = 0;  // seconds; 0: none
  unsigned refresh = 0;  // seconds
};

// The cache is the process's: the last call counts. It goes with the static objects.
AnswerCache OpenNameCache(const NameCacheOptions& options);

}  // namespace gxtool

#endif  // GX_PEER_NAME_CACHE_H

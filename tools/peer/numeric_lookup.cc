// Stands in for lookup.cc and cached_lookup.cc in the static program. The C library's resolver loads parts of
// itself at run time, from a system that is another one over there, so this program looks nothing up.
#include "peer/cached_lookup.h"

namespace gxtool {

const bool kHasDnsCache = false;

LookupResult SystemLookup(const std::string& /*host*/) {
  return {{}, "the static gx-ssh-peer takes addresses, not names"};
}

Lookup CachedLookup(const DnsCacheOptions& /*options*/) { return SystemLookup; }

}  // namespace gxtool

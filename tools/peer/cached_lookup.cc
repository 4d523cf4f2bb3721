#include "peer/cached_lookup.h"

#include "base/dns_cache.h"

namespace gxtool {

const bool kHasDnsCache = true;

Lookup CachedLookup(const DnsCacheOptions& options) {
  dnscache_init(options.file, options.max_age, options.refresh);
  return [](const std::string& host) { return LookupWith(dnscache_getaddrinfo, dnscache_freeaddrinfo, host); };
}

}  // namespace gxtool

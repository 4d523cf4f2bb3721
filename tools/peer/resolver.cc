#include "peer/resolver.h"

namespace gxtool {

std::unique_ptr<NameQuery> Resolver::Resolve(const std::string& host, NameQuery::Done done) {
  // localhost is never looked up on name servers.
  if (host == "localhost") {
    return std::make_unique<NameQuery>(io_, LookupResult{{"127.0.0.1", "::1"}, {}}, std::move(done));
  }
  if (sources_.lookup) return std::make_unique<NameQuery>(io_, sources_.lookup(host), std::move(done));
  if (sources_.cache) {
    done = [cache = sources_.cache, host, done = std::move(done)](const LookupResult& live) {
      done(cache(host, live));
    };
  }
  return std::make_unique<NameQuery>(io_, sources_.servers, host, std::move(done));
}

}  // namespace gxtool

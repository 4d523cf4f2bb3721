// Looks names up on a thread of its own, so that a resolver that hangs holds up nothing but the names behind
// it.
#ifndef GX_PEER_RESOLVER_H
#define GX_PEER_RESOLVER_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "peer/asio_types.h"
#include "peer/lookup.h"

namespace gxtool {

class Resolver {
 public:
  using Done = std::function<void(const LookupResult&)>;

  // `io` outlives the resolver.
  Resolver(asio::io_context& io, Lookup lookup);
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;
  // Does not wait for a look-up that hangs: its thread ends by itself once it comes back.
  ~Resolver();

  // `done` is called later, by the event loop; never after the destructor.
  void Resolve(const std::string& host, Done done);

 private:
  struct Shared;

  std::shared_ptr<Shared> shared_;
};

}  // namespace gxtool

#endif  // GX_PEER_RESOLVER_H

// Looks names up without blocking the event loop.
// Threads: the one that runs the io_context.
#ifndef GX_PEER_RESOLVER_H
#define GX_PEER_RESOLVER_H

#include <memory>
#include <string>
#include <utility>

#include "peer/asio_types.h"
#include "peer/lookup.h"
#include "peer/name_query.h"

namespace gxtool {

class Resolver {
 public:
  // `io` is borrowed and outlives the resolver and its queries.
  Resolver(asio::io_context& io, NameSources sources) : io_(io), sources_(std::move(sources)) {}

  // The event loop calls `done` later, unless the query is destroyed first.
  [[nodiscard]] std::unique_ptr<NameQuery> Resolve(const std::string& host, NameQuery::Done done);

 private:
  asio::io_context& io_;
  const NameSources sources_;
};

}  // namespace gxtool

#endif  // GX_PEER_RESOLVER_H

// Looks one name up in the hosts file and on the name servers. Names that only other sources of the system know
// (mDNS, LDAP and the like) are not found.
// Threads: the one that runs the io_context.
#ifndef GX_PEER_NAME_QUERY_H
#define GX_PEER_NAME_QUERY_H

#include <functional>
#include <memory>
#include <string>

#include "peer/asio_types.h"
#include "peer/lookup.h"

namespace gxtool {

// False in a build that can look up only localhost.
extern const bool kAsksNameServers;

class NameQuery {
 public:
  using Done = std::function<void(const LookupResult&)>;

  // `servers`, if not empty, replace the system's: ADDRESS:PORT, separated by commas. `done` is called once, by
  // the event loop, and may destroy the query.
  NameQuery(asio::io_context& io, const std::string& servers, const std::string& host, Done done);
  // Answers with `answer`, without a lookup.
  NameQuery(asio::io_context& io, LookupResult answer, Done done);
  NameQuery(const NameQuery&) = delete;
  NameQuery& operator=(const NameQuery&) = delete;
  // Cancels the query; `done` is not called afterwards.
  ~NameQuery();

 private:
  class Channel;

  const std::shared_ptr<Channel> channel_;
};

}  // namespace gxtool

#endif  // GX_PEER_NAME_QUERY_H

// Asks the hosts file and the name servers for one name. Names that only the system's other sources know
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

// False in a program that knows localhost and no other name.
extern const bool kAsksNameServers;

class NameQuery {
 public:
  using Done = std::function<void(const LookupResult&)>;

  // `servers` are asked in place of the system's unless it is empty: ADDRESS:PORT, divided by commas. `done` is
  // called once, by the event loop, and may destroy the query.
  NameQuery(asio::io_context& io, const std::string& servers, const std::string& host, Done done);
  // Asks nobody: `done` hears `answer`.
  NameQuery(asio::io_context& io, LookupResult answer, Done done);
  NameQuery(const NameQuery&) = delete;
  NameQuery& operator=(const NameQuery&) = delete;
  // Takes the question back: nothing of it is left, and `done` is not called any more.
  ~NameQuery();

 private:
  class Channel;

  const std::shared_ptr<Channel> channel_;
};

}  // namespace gxtool

#endif  // GX_PEER_NAME_QUERY_H

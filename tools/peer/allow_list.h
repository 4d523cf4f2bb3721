// The targets that the other side may ask for.
//
// An entry reads HOST:PORT in the strict form of common/host_port.h, where `*` stands for any host or for any
// port, or unix:PATH as in common/destination.h. No star and no Any stands for a Unix socket: each is named by
// its whole path. Entries and targets are compared after parsing. A name permits that name and not its
// addresses, an address that address and not its names: nothing is looked up to answer Permits. "localhost"
// alone is another way to write 127.0.0.1 and ::1, in entries and in targets.
#ifndef GX_PEER_ALLOW_LIST_H
#define GX_PEER_ALLOW_LIST_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/destination.h"

namespace gxtool {

class AllowList {
 public:
  // Permits nothing.
  AllowList() = default;
  // This computer's own SSH service: 127.0.0.1:22 and [::1]:22.
  static AllowList Default();
  static AllowList Any();  // HOST:PORT

  // False: `entry` is none, `*why` tells the reason.
  bool Add(std::string_view entry, std::string* why);

  bool Permits(const Destination& target) const;
  // Those of all targets that it permits; nothing: any.
  std::optional<std::vector<std::uint16_t>> Ports() const;
  bool HasUnixSockets() const { return !sockets_.empty(); }

  // Whether `target`, a name that Permits, may be reached at `address`. Whoever runs the name's server could
  // have it lead to services of this computer, so loopback, link-local, multicast and unspecified addresses
  // must be permitted by themselves.
  bool PermitsAddress(const HostPort& target, const std::string& address) const;

 private:
  struct Entry {
    std::optional<std::string> host;    // nothing: any
    std::optional<std::uint16_t> port;  // nothing: any
  };

  bool PermitsTcp(const HostPort& target) const;

  std::vector<Entry> entries_;
  std::vector<UnixSocket> sockets_;
};

}  // namespace gxtool

#endif  // GX_PEER_ALLOW_LIST_H

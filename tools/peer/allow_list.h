// The targets that the other side may request.
//
// An entry is HOST:PORT in the strict form of common/host_port.h, where `*` stands for any host or any port, or
// unix:PATH as in common/destination.h. Only an entry with its full path permits a Unix socket; `*` and Any()
// stand for hosts and ports. Entries and targets are parsed first and then compared, without a name lookup: a
// name permits only that name and an address only that address. One exception: "localhost" equals 127.0.0.1 and
// ::1, in entries and targets.
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
  // This computer's SSH service: 127.0.0.1:22 and [::1]:22.
  static AllowList Default();
  static AllowList Any();  // any HOST:PORT

  // Returns false, with the reason in `*why`, when `entry` is invalid.
  bool Add(std::string_view entry, std::string* why);

  bool Permits(const Destination& target) const;
  // The ports of all permitted targets; empty when any port is permitted.
  std::optional<std::vector<std::uint16_t>> Ports() const;
  bool HasUnixSockets() const { return !sockets_.empty(); }

  // Whether `target`, a permitted name, may be reached at `address`. The name's owner could point it at
  // services of this computer, so loopback, link-local, multicast and unspecified addresses need an entry of
  // their own.
  bool PermitsAddress(const HostPort& target, const std::string& address) const;

 private:
  struct Entry {
    std::optional<std::string> host;    // empty: any
    std::optional<std::uint16_t> port;  // empty: any
  };

  bool PermitsTcp(const HostPort& target) const;

  std::vector<Entry> entries_;
  std::vector<UnixSocket> sockets_;
};

}  // namespace gxtool

#endif  // GX_PEER_ALLOW_LIST_H

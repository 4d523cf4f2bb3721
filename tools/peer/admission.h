// Decides who may connect to which target.
#ifndef GX_PEER_ADMISSION_H
#define GX_PEER_ADMISSION_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "peer/asio_types.h"
#include "peer/peer.h"

namespace gxtool {

class Admission {
 public:
  // `options` are borrowed and outlive this object.
  explicit Admission(const PeerOptions& options) : options_(options) {}

  struct Verdict {
    std::optional<Destination> target;  // the target to open
    std::string refusal;                // if there is no target: the reason, for people
  };
  // Decides on a Connect frame with that text, while `open` connections exist.
  Verdict Judge(const std::string& text, std::size_t open) const;

  struct Places {
    std::vector<StreamEndpoint> endpoints;  // in the order in which to try them
    std::string why_none;
  };
  // The permitted addresses of an admitted target, from the result of its name lookup.
  Places JudgeAddresses(const HostPort& target, const LookupResult& result) const;

  // Refuses all connections from now on.
  void Stop() { stopped_ = true; }

 private:
  std::string WhyNot(const Destination& target, std::size_t open) const;

  const PeerOptions& options_;
  bool stopped_ = false;
};

// The endpoints of numeric addresses.
std::vector<StreamEndpoint> EndpointsOf(const std::vector<std::string>& addresses, std::uint16_t port);

}  // namespace gxtool

#endif  // GX_PEER_ADMISSION_H

// Who may connect where.
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
  // `options` outlive this.
  explicit Admission(const PeerOptions& options) : options_(options) {}

  struct Verdict {
    std::optional<Destination> target;  // to be opened
    std::string refusal;                // otherwise: a line for people
  };
  // Of a Connect frame with that text, while `open` connections are.
  Verdict Judge(const std::string& text, std::size_t open) const;

  struct Places {
    std::vector<StreamEndpoint> endpoints;  // in the order in which they are to be tried
    std::string why_none;
  };
  // Where a target that was admitted may be reached, if its name leads there.
  Places JudgeAddresses(const HostPort& target, const LookupResult& result) const;

  // No more connections from now on.
  void Stop() { stopped_ = true; }

 private:
  std::string WhyNot(const Destination& target, std::size_t open) const;

  const PeerOptions& options_;
  bool stopped_ = false;
};

// For a target that is an address.
std::vector<StreamEndpoint> EndpointsOf(const std::vector<std::string>& addresses, std::uint16_t port);

}  // namespace gxtool

#endif  // GX_PEER_ADMISSION_H

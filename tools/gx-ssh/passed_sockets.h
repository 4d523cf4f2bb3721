// Sockets that were opened for this program before it started: socket activation.
#ifndef GX_SSH_PASSED_SOCKETS_H
#define GX_SSH_PASSED_SOCKETS_H

#include <vector>

#include "common/descriptor.h"
#include "gx-ssh/forward.h"

namespace gxtool {

// What a socket is bound to: a path, or a numeric address and a port.
ListenAddress BoundAddress(int socket);

// The service manager listens at them already, and goes on when this program has ended.
class PassedSockets {
 public:
  // Takes those that were passed to this very process: before it forks. Throws Failure (kExitListen) for one
  // that takes no connections.
  PassedSockets();

  // The one that is bound to `at`; none where it is not among them.
  Descriptor Take(const ListenAddress& at);
  // Throws Failure (kExitListen) when one was not taken: its clients would wait for ever.
  void ExpectAllTaken() const;

 private:
  struct Socket {
    ListenAddress at;
    Descriptor descriptor;
  };
  std::vector<Socket> sockets_;
};

}  // namespace gxtool

#endif  // GX_SSH_PASSED_SOCKETS_H

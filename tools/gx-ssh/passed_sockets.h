// Socket activation: sockets that were opened before this program started.
#ifndef GX_SSH_PASSED_SOCKETS_H
#define GX_SSH_PASSED_SOCKETS_H

#include <vector>

#include "common/descriptor.h"
#include "gx-ssh/forward.h"

namespace gxtool {

// The address that a socket is bound to: a path, or a numeric address and a port.
ListenAddress BoundAddress(int socket);

// The sockets from the service manager, which keeps listening at them after this program has ended.
class PassedSockets {
 public:
  // Takes the sockets that were passed to this process, so call it before forking. Throws Failure (kExitListen)
  // for a socket that does not listen.
  PassedSockets();

  // Returns the socket bound to `at`; empty when there is none.
  Descriptor Take(const ListenAddress& at);
  // Throws Failure (kExitListen) when a socket was not taken: its clients would wait forever.
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

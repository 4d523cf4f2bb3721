// The kernel's table of sockets: whose a local TCP connection is.
#ifndef GX_SSH_SOCKET_TABLE_H
#define GX_SSH_SOCKET_TABLE_H

#include <sys/types.h>

#include <optional>

#include "common/descriptor.h"

namespace gxtool {

// Threads: one at a time.
class SocketTable {
 public:
  // Throws std::system_error when the system has no such table.
  SocketTable();

  // The user who opened the other end of a connected TCP socket. Nothing when that is on another computer or in
  // another network namespace, and when its program has closed it already: what is left then belongs to nobody.
  std::optional<uid_t> OwnerOfPeer(int socket) const;

 private:
  Descriptor kernel_;
};

}  // namespace gxtool

#endif  // GX_SSH_SOCKET_TABLE_H

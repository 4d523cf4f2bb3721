// The kernel's socket table: finds the owner of a local TCP connection.
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

  // Returns the user who opened the other end of a connected TCP socket. Returns nothing when that end is on
  // another computer, in another network namespace, or already closed by its program.
  std::optional<uid_t> OwnerOfPeer(int socket) const;

 private:
  Descriptor kernel_;
};

}  // namespace gxtool

#endif  // GX_SSH_SOCKET_TABLE_H

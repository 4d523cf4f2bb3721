// Standard input and output at a Unix socket: what --connect does.
#ifndef GX_SSH_SOCKET_CLIENT_H
#define GX_SSH_SOCKET_CLIENT_H

#include <chrono>
#include <string>

namespace gxtool {

// Connects to the socket within `limit` (0: no limit) and carries bytes both ways until its side ends; the end
// of the input goes on to it. Returns the exit status, after a failure was told on standard error. The
// descriptors are borrowed. Threads: one.
int ConnectSocket(const std::string& path, std::chrono::milliseconds limit, int input, int output);

}  // namespace gxtool

#endif  // GX_SSH_SOCKET_CLIENT_H

// Connects standard input and output to a Unix socket, for --connect.
#ifndef GX_SSH_SOCKET_CLIENT_H
#define GX_SSH_SOCKET_CLIENT_H

#include <chrono>
#include <string>

namespace gxtool {

// Connects to the socket within `limit` (0: no limit) and carries bytes both ways until the socket's side ends;
// the end of the input is passed on. Returns the exit status; a failure is reported on standard error. The
// descriptors are borrowed. Threads: one.
int ConnectSocket(const std::string& path, std::chrono::milliseconds limit, int input, int output);

}  // namespace gxtool

#endif  // GX_SSH_SOCKET_CLIENT_H

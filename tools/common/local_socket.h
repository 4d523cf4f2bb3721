// The amount of unread data in a local socket.
#ifndef GX_COMMON_LOCAL_SOCKET_H
#define GX_COMMON_LOCAL_SOCKET_H

#include <optional>

namespace gxtool {

// Sets how many written bytes of `fd` may be unread, roughly: Linux allows twice as many. Larger values save
// system calls and context switches; smaller values delay a small frame less. Only changes local (AF_UNIX)
// sockets: TCP sizes its own buffers, and a pipe's size is up to its creator. A refusal by the system is
// harmless.
void SetUnreadBytes(int fd, int bytes);

// The number of written bytes of `fd` that are unread; nothing when it is not a local socket.
std::optional<int> UnreadBytes(int fd);

}  // namespace gxtool

#endif  // GX_COMMON_LOCAL_SOCKET_H

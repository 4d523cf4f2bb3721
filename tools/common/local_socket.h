// The amount of unread data in a local socket.
#ifndef GX_COMMON_LOCAL_SOCKET_H
#define GX_COMMON_LOCAL_SOCKET_H

#include <optional>

namespace gxtool {

// Sets how many written bytes of `fd` may be unread, roughly: Linux allows twice as many. Larger values save
// system calls and context switches; smaller values delay a small frame less. Returns false and changes nothing
// unless `fd` is a local (AF_UNIX) socket: TCP sizes its own buffers, and a pipe's size is up to its creator. A
// refusal by the system is harmless.
bool SetUnreadBytes(int fd, int bytes);

// The number of written bytes of a local socket that are unread; nothing when the system does not tell.
std::optional<int> UnreadBytes(int fd);

}  // namespace gxtool

#endif  // GX_COMMON_LOCAL_SOCKET_H

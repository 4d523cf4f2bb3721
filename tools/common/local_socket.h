// What lies unread between two processes of one machine.
#ifndef GX_COMMON_LOCAL_SOCKET_H
#define GX_COMMON_LOCAL_SOCKET_H

namespace gxtool {

// How many bytes written to `fd` may wait for their reader, about: Linux lets twice as many in. More of them
// save system calls and switches between the processes; fewer hold a small frame up for less long. Only for a
// local (AF_UNIX) socket: TCP finds its own measure, and a pipe's is left to who made it. A refusal by the
// system does no harm.
void SetUnreadBytes(int fd, int bytes);

}  // namespace gxtool

#endif  // GX_COMMON_LOCAL_SOCKET_H

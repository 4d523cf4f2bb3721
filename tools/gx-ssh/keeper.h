// The process that stands between gx-ssh and a program that it starts, so that nothing stays behind.
#ifndef GX_SSH_KEEPER_H
#define GX_SSH_KEEPER_H

#include <sys/types.h>

namespace gxtool {

// Watches over `program`, a child of the calling process, and over what it starts. On Linux that is everything
// that the program leaves behind, except what has made itself a session of its own: that wants to stay.
//
// `control` is a socket to gx-ssh. Each byte that comes is a signal for the program. Its end, as after gx-ssh
// was killed, means that all must end: by itself for a moment, then with SIGTERM, then with SIGKILL, in 1.5 s
// altogether. When the program has ended, what it left is ended as well and its wait status (an int) is written
// to `control`.
//
// For a process that was forked from one with other threads, with all signals blocked: calls only what a signal
// handler may call.
[[noreturn]] void Keep(pid_t program, int control);

}  // namespace gxtool

#endif  // GX_SSH_KEEPER_H

// The process that stands between gx-ssh and a program that it starts, so that nothing stays behind.
#ifndef GX_SSH_KEEPER_H
#define GX_SSH_KEEPER_H

#include <sys/types.h>

namespace gxtool {

// What a keeper has to know.
struct KeeperOrders {
  pid_t program;  // a child of the keeper
  int control;    // a socket to gx-ssh
  pid_t parent;   // gx-ssh
  // Nonzero: the keeper and the program are a process group of their own, and this is the one of gx-ssh, the
  // terminal's job. When the terminal stops the program gx-ssh gets SIGTSTP for a key, and the job what stopped
  // it otherwise, so that a shell that waits for it goes on. When the group ends that has the terminal, the job
  // gets it back.
  pid_t job = 0;
  bool passes_interrupts = false;  // what somebody types to interrupt the group is meant for the job
  int leftover_ms = 0;             // what a program that ended leaves behind has so long to follow SIGTERM
};

// The keeper's last word, written to `control`.
struct KeeperReport {
  int status = 0;     // of the program, as from waitpid
  pid_t left = 0;     // nonzero: this process goes on, and there may be more
  int left_why = 0;   // the errno of signalling it; 0: it was reached, and does not go
  bool ended = true;  // the program has; otherwise `status` says nothing
};

// Watches over the program, and over what it starts. On Linux that is everything that the program leaves
// behind, except what has made itself a session of its own: that wants to stay.
//
// Each byte that comes from `control` is a signal: SIGKILL for everything, SIGTSTP and SIGCONT for the group,
// others for the program alone. The end of `control`, as after gx-ssh was killed, means that all must end: by
// itself for a moment, then with SIGTERM, then with SIGKILL, in 1.5 s altogether. When the program has ended,
// what it left is ended as well. What may not be signalled, or does not go within half a second of SIGKILL, is
// left and reported.
//
// For a process that was forked from one with other threads, with all signals blocked: calls only what a signal
// handler may call.
[[noreturn]] void Keep(const KeeperOrders& orders);

}  // namespace gxtool

#endif  // GX_SSH_KEEPER_H

// A process between gx-ssh and a program that it starts, which ends everything that the program started.
#ifndef GX_SSH_KEEPER_H
#define GX_SSH_KEEPER_H

#include <sys/types.h>

namespace gxtool {

// The keeper's parameters.
struct KeeperOrders {
  pid_t program;  // a child of the keeper
  int control;    // a socket to gx-ssh
  pid_t parent;   // gx-ssh
  // If not 0: the keeper and the program have their own process group, and this is gx-ssh's group, the
  // terminal's job. When the terminal stops the program because of a key, gx-ssh gets SIGTSTP; for other
  // reasons the job gets the signal that stopped it, so that a waiting shell continues. When the group ends
  // while it has the terminal, the job gets the terminal back.
  pid_t job = 0;
  bool passes_interrupts = false;  // an interrupt typed for the group is passed to the job
  int leftover_ms = 0;             // leftover processes of an ended program have this long to end after SIGTERM
};

// The keeper's final message on `control`.
struct KeeperReport {
  int status = 0;     // of the program, from waitpid
  pid_t left = 0;     // if not 0: this process is still running, perhaps with others
  int left_why = 0;   // the errno of signalling it; 0: signalled, but it does not end
  bool ended = true;  // the program has ended; if false, `status` is meaningless
};

// Supervises the program and the processes that it started. On Linux these include all that the program leaves
// behind, except those in their own session: they mean to stay.
//
// Each byte from `control` is a signal: SIGKILL for all processes, SIGTSTP and SIGCONT for the group, others
// for the program alone. The end of `control` (for example because gx-ssh was killed) ends everything: after a
// moment with SIGTERM, then with SIGKILL, within 1.5 s. Once the program has ended, its leftover processes are
// ended as well. Processes that may not be signalled, or that do not end within half a second of SIGKILL, are
// reported and left.
//
// Runs in a process that was forked from a multi-threaded one, with all signals blocked: it makes only
// async-signal-safe calls.
[[noreturn]] void Keep(const KeeperOrders& orders);

}  // namespace gxtool

#endif  // GX_SSH_KEEPER_H

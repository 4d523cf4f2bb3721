// The controlling terminal, and the process group that has it.
#ifndef GX_SSH_TERMINAL_H
#define GX_SSH_TERMINAL_H

#include <sys/types.h>

#include "common/descriptor.h"

namespace gxtool {

// True unless `fd` is a terminal on which another process group is in the foreground, as while a shell has this
// program in the background.
bool InForeground(int fd);

// Lends the terminal to the group of a program that gx-ssh has started. Does nothing where there is no terminal
// or where gx-ssh itself is in the background of it. From its start on no write to the terminal and no change
// of its group stops this process: it has to go on while the terminal is lent. Threads: the program's own one,
// before it starts others.
class Terminal {
 public:
  Terminal();

  // What a program is given that shall have the terminal from its first instruction; -1: nothing.
  int ToLend() const;
  // That group has it now, or would have it.
  void LentTo(pid_t group) { borrower_ = group; }
  bool IsLentTo(pid_t group) const { return borrower_ > 0 && borrower_ == group; }
  // From its borrower, if that has it.
  void TakeBack();
  // For good.
  void Leave() { terminal_.Reset(); }
  // A shell has put this program into the foreground again: its borrower follows.
  void OnContinued();

 private:
  Descriptor terminal_;
  pid_t borrower_ = 0;  // 0: none
};

}  // namespace gxtool

#endif  // GX_SSH_TERMINAL_H

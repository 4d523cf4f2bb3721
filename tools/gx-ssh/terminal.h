// The controlling terminal and its foreground process group.
#ifndef GX_SSH_TERMINAL_H
#define GX_SSH_TERMINAL_H

#include <sys/types.h>

#include "common/descriptor.h"

namespace gxtool {

// False when `fd` is a terminal with another process group in the foreground, for example because a shell runs
// this program in the background.
bool InForeground(int fd);

// Lends the terminal to the process group of a program that gx-ssh started. Does nothing without a terminal or
// when gx-ssh is in the background. From construction on, writing to the terminal and changing its foreground
// group do not stop this process, because it must continue while the terminal is lent. Threads: the main
// thread, before it starts others.
class Terminal {
 public:
  Terminal();

  // The descriptor for a program that gets the terminal before its first instruction; -1: none.
  int ToLend() const;
  // Records that the terminal is lent to that group, if there is one to lend.
  void LentTo(pid_t group) { borrower_ = group; }
  bool IsLentTo(pid_t group) const { return borrower_ > 0 && borrower_ == group; }
  // Takes the terminal back if the borrower still has it.
  void TakeBack();
  // Stops using the terminal for good.
  void Leave() { terminal_.Reset(); }
  // A shell has put this program into the foreground again: lends the terminal again.
  void OnContinued();

 private:
  Descriptor terminal_;
  pid_t borrower_ = 0;  // 0: not lent
};

}  // namespace gxtool

#endif  // GX_SSH_TERMINAL_H

// Programs that gx-ssh starts.
#ifndef GX_SSH_CHILD_H
#define GX_SSH_CHILD_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/descriptor.h"

namespace gxtool {

// A program under a keeper process. It gets the default SIGPIPE action, an empty signal mask and only the
// descriptors 0, 1 and 2. The program and the processes that it started end within 1.5 s after the end of this
// object or of this process, even by SIGKILL, except those that gx-ssh may not signal. Threads: the one that
// started it.
class Child {
 public:
  // Changes of the environment; without a value the variable is removed.
  using Variables = std::vector<std::pair<std::string, std::optional<std::string>>>;

  // The program's process group. A group of its own may be lent the terminal; when the terminal stops it,
  // gx-ssh's group is stopped, too. With kOwnSharesInterrupts an interrupt from the terminal also reaches
  // gx-ssh's group.
  enum class Group { kOurs, kOwn, kOwnSharesInterrupts };

  struct Start {
    std::vector<std::string> arguments;  // the first one is searched for in PATH
    int input = 0;                       // descriptors that become its 0, 1 and 2
    int output = 1;
    int errors = 2;
    Variables environment = {};
    Group group = Group::kOurs;
    int terminal = -1;                             // if not -1, lent to the new group before the program runs
    std::chrono::milliseconds leftover_time{200};  // see KeeperOrders
  };

  // Throws Failure (kExitNotFound, kExitNotExecutable).
  explicit Child(const Start& start);
  // Ends the program, see End.
  ~Child() { End(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The status from waitpid, once the program has ended. Never blocks; call it after SIGCHLD.
  std::optional<int> Poll();

  // SIGKILL also ends the processes that the program started; SIGTSTP and SIGCONT go to its group; other
  // signals to the program.
  void Signal(int number);

  // Waits a moment for the program to end, then ends it. The log names a program that could not be ended.
  void End();

  // The process group, unless it is gx-ssh's own.
  pid_t group() const { return keeper_; }

  // "exit status 3", "signal 9 (Killed)"
  static std::string Describe(int wait_status);
  // In the form of a shell: the exit status, or 128 plus the signal's number.
  static int ExitStatus(int wait_status);

 private:
  void Launch(const Start& start, int report, int keeper_control);
  void Wait(int flags);

  const std::string name_;
  pid_t keeper_ = -1;
  Descriptor control_;  // socket to the keeper
  bool over_ = false;   // the keeper has ended
  std::optional<int> status_;
};

}  // namespace gxtool

#endif  // GX_SSH_CHILD_H

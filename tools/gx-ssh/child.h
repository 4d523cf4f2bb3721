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

// One program, under a keeper. It gets the default SIGPIPE, an empty signal mask and no descriptor of ours but
// 0, 1 and 2. Neither it nor what it has started outlives this object or the process, however that ends, by
// more than 1.5 s, except what we may not signal. Threads: the one that started it.
class Child {
 public:
  // Changes of the environment; no value: the variable goes.
  using Variables = std::vector<std::pair<std::string, std::optional<std::string>>>;

  // The process group of the program. One of its own has the terminal when that is given to it, and ours is
  // stopped with it; what interrupts the second kind there interrupts our group as well.
  enum class Group { kOurs, kOwn, kOwnSharesInterrupts };

  struct Start {
    std::vector<std::string> arguments;  // the first is looked up in PATH
    int input = 0;                       // descriptors that become its 0, 1 and 2
    int output = 1;
    int errors = 2;
    Variables environment = {};
    Group group = Group::kOurs;
    int terminal = -1;  // nonnegative: given to the new group before the program runs
    std::chrono::milliseconds leftover_time{200};  // see KeeperOrders
  };

  // Throws Failure (kExitNotFound, kExitNotExecutable).
  explicit Child(const Start& start);
  // Ends it, see End.
  ~Child() { End(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The status that waitpid gives, once the program has ended. Never blocks; call it after SIGCHLD.
  std::optional<int> Poll();

  // SIGKILL ends also what the program has started; SIGTSTP and SIGCONT are for its group.
  void Signal(int number);

  // Brings the end about if it does not come by itself, and waits for it. A program that stays all the same is
  // named in the log.
  void End();

  // The process group, when it has one of its own.
  pid_t group() const { return keeper_; }

  // "exit status 3", "signal 9 (Killed)"
  static std::string Describe(int wait_status);
  // As a shell would say it: the exit status, or 128 and the signal's number.
  static int ExitStatus(int wait_status);

 private:
  void Launch(const Start& start, int report, int keeper_control);
  void Wait(int flags);

  const std::string name_;
  pid_t keeper_ = -1;
  Descriptor control_;  // to the keeper
  bool over_ = false;   // the keeper has ended
  std::optional<int> status_;
};

}  // namespace gxtool

#endif  // GX_SSH_CHILD_H

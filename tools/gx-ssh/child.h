// Programs that gx-ssh starts.
#ifndef GX_SSH_CHILD_H
#define GX_SSH_CHILD_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gx-ssh/descriptor.h"

namespace gxtool {

// One program, under a keeper. It gets the default SIGPIPE, an empty signal mask and no descriptor of ours but
// 0, 1 and 2. Neither it nor what it has started outlives this object or the process, however that ends, by
// more than 1.5 s. Threads: the one that started it.
class Child {
 public:
  struct Start {
    std::vector<std::string> arguments;  // the first is looked up in PATH
    int input = 0;                       // descriptors that become its 0, 1 and 2
    int output = 1;
    int errors = 2;
    std::vector<std::pair<std::string, std::string>> environment = {};  // beside ours
  };

  // Throws Failure (kExitNotFound, kExitNotExecutable).
  explicit Child(const Start& start);
  // Ends it, see End.
  ~Child() { End(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The status that waitpid gives, once the program has ended. Never blocks; call it after SIGCHLD.
  std::optional<int> Poll();

  void Signal(int number);

  // Waits for the end, and brings it about if it does not come by itself.
  void End();

  // "exit status 3", "signal 9 (Killed)"
  static std::string Describe(int wait_status);
  // As a shell would say it: the exit status, or 128 and the signal's number.
  static int ExitStatus(int wait_status);

 private:
  void Launch(const Start& start, int report, int keeper_control);
  std::optional<int> Wait(int flags);

  pid_t keeper_ = -1;
  Descriptor control_;  // to the keeper
  std::optional<int> status_;
};

}  // namespace gxtool

#endif  // GX_SSH_CHILD_H

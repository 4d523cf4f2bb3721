// Programs that gx-ssh starts.
#ifndef GX_SSH_CHILD_H
#define GX_SSH_CHILD_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace gxtool {

// One program. It gets the default SIGPIPE, an empty signal mask and no descriptor of ours but 0, 1 and 2. It
// does not outlive this object, nor (on Linux) the process, however that ends. Threads: the one that started
// it, which must live as long as the process.
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
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The status that waitpid gave, once the program has ended. Never blocks; call it after SIGCHLD.
  std::optional<int> Poll();

  // Waits for the end for `patience`; then asks with SIGTERM, and soon after ends it with SIGKILL.
  void End(std::chrono::milliseconds patience);

  void Signal(int number);

  // "exit status 3", "signal 9 (Killed)"
  static std::string Describe(int wait_status);
  // As a shell would say it: the exit status, or 128 and the signal's number.
  static int ExitStatus(int wait_status);

 private:
  bool WaitFor(std::chrono::milliseconds limit);

  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace gxtool

#endif  // GX_SSH_CHILD_H

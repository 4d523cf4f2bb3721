// Many TCP clients at once, in a process of their own: the descriptors that select can watch are few, and they
// shall be the module's alone.
#ifndef GX_TESTS_SUPPORT_SWARM_H
#define GX_TESTS_SUPPORT_SWARM_H

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <optional>
#include <string>

#include "support/wait.h"

extern char** environ;

namespace gxtest {

// Every client sends a pattern of its own and checks that the same bytes come back; all hang up together when
// the last one has its answer. A fault is told on standard error.
class Swarm {
 public:
  Swarm(const std::string& address, std::size_t clients, std::size_t bytes_each) {
    std::string port = address.substr(address.rfind(':') + 1);
    std::string count = std::to_string(clients);
    std::string bytes = std::to_string(bytes_each);
    std::string program = GX_SWARM_PATH;
    char* arguments[] = {program.data(), port.data(), count.data(), bytes.data(), nullptr};
    if (posix_spawn(&child_, GX_SWARM_PATH, nullptr, nullptr, arguments, environ) != 0) child_ = -1;
  }
  Swarm(const Swarm&) = delete;
  Swarm& operator=(const Swarm&) = delete;
  ~Swarm() {
    if (child_ <= 0) return;
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }

  // All went well for everybody, in time. A swarm gives up by itself when nothing has moved for 10 s.
  bool Succeeds(std::chrono::milliseconds patience) {
    int status = 0;
    if (child_ <= 0 || !Eventually([&] { return waitpid(child_, &status, WNOHANG) == child_; }, patience)) {
      return false;
    }
    child_ = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

 private:
  pid_t child_ = -1;
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_SWARM_H

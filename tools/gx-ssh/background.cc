#include "gx-ssh/background.h"

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "gx-ssh/child.h"
#include "gx-ssh/failure.h"

namespace gxtool {
namespace {

// The original process. An interrupt key also reaches the child, which is in the same job.
[[noreturn]] void WaitFor(pid_t child, int ready, int output) {
  char byte = 0;
  ssize_t got = 0;
  while ((got = read(ready, &byte, 1)) < 0 && errno == EINTR) {
  }
  if (got == 1) {
    dprintf(output, "%d\n", static_cast<int>(child));
    _exit(kExitOk);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  _exit(Child::ExitStatus(status));
}

}  // namespace

Background::Background(int output) {
  Pipe ready = MakePipe();
  const pid_t child = Checked(fork(), "fork");
  if (child > 0) {
    ready.write.Reset();
    WaitFor(child, ready.read.get(), output);
  }
  launcher_ = std::move(ready.write);
}

bool Background::Detach(int output) {
  setsid();
  const Descriptor null(Checked(open("/dev/null", O_RDWR | O_CLOEXEC), "/dev/null"));
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) Checked(dup2(null.get(), fd), "dup2");
  Checked(dup2(null.get(), output), "dup2");
  fcntl(output, F_SETFD, FD_CLOEXEC);
  const bool told = write(launcher_.get(), "", 1) == 1;
  launcher_.Reset();
  return told;
}

}  // namespace gxtool

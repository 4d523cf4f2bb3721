#include "gx-ssh/terminal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <utility>

namespace gxtool {

bool InForeground(int fd) {
  const pid_t group = tcgetpgrp(fd);
  return group < 0 || group == getpgrp();
}

Terminal::Terminal() : terminal_(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {
  sigset_t background_write;
  sigemptyset(&background_write);
  sigaddset(&background_write, SIGTTOU);
  pthread_sigmask(SIG_BLOCK, &background_write, nullptr);
}

int Terminal::ToLend() const { return terminal_ && InForeground(terminal_.get()) ? terminal_.get() : -1; }

void Terminal::TakeBack() {
  const pid_t borrower = std::exchange(borrower_, 0);
  if (terminal_ && borrower > 0 && tcgetpgrp(terminal_.get()) == borrower)
    tcsetpgrp(terminal_.get(), getpgrp());
}

void Terminal::OnContinued() {
  if (borrower_ > 0 && ToLend() >= 0) tcsetpgrp(terminal_.get(), borrower_);
}

}  // namespace gxtool

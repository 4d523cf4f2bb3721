#include "gx-ssh/signals.h"

#include <unistd.h>

#include <cerrno>

namespace gxtool {
namespace {

int g_pipe = -1;

void PassOn(int number, siginfo_t* info, void*) {
  const int before = errno;
  const bool by_kernel = info->si_code > 0;
  const Signal signal{static_cast<unsigned char>(number), by_kernel, by_kernel ? 0 : info->si_pid};
  // If the pipe is full, the signals in it are enough.
  [[maybe_unused]] const ssize_t written = write(g_pipe, &signal, sizeof signal);
  errno = before;
}

}  // namespace

Signals::Signals(asio::io_context& io, Handler handler)
    : handler_(std::move(handler)), wake_up_(io, Duplicate(pipe_.read.get()).Release()) {
  SetNonBlocking(pipe_.read.get(), true);
  SetNonBlocking(pipe_.write.get(), true);
  g_pipe = pipe_.write.get();
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGTSTP, SIGCONT, SIGUSR1}) Watch(number);
  Wait();
}

Signals::~Signals() {
  for (const auto& [number, action] : before_) sigaction(number, &action, nullptr);
}

void Signals::Watch(int number) {
  struct sigaction before {};
  sigaction(number, nullptr, &before);
  if ((number == SIGHUP || number == SIGTSTP) && before.sa_handler == SIG_IGN) return;
  struct sigaction action {};
  action.sa_sigaction = PassOn;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaction(number, &action, nullptr);
  before_.emplace_back(number, before);
}

void Signals::HandOn() {
  Signal signal;
  while (read(pipe_.read.get(), &signal, sizeof signal) == sizeof signal) handler_(signal);
}

void Signals::Suspend(bool alone) {
  struct sigaction handled {};
  struct sigaction by_default {};
  by_default.sa_handler = SIG_DFL;
  sigaction(SIGTSTP, &by_default, &handled);
  // A signal to the own process has taken effect when kill returns.
  kill(alone ? getpid() : 0, SIGTSTP);
  sigaction(SIGTSTP, &handled, nullptr);
}

void Signals::Wait() {
  wake_up_.async_wait(asio::posix::stream_descriptor::wait_read, [this](asio::error_code error) {
    if (error) return;
    HandOn();
    Wait();
  });
}

}  // namespace gxtool

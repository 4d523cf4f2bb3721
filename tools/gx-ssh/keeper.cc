#include "gx-ssh/keeper.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/syscall.h>
#endif

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace gxtool {
namespace {

constexpr std::int64_t kByItselfMs = 700;  // time to end after its input has ended
constexpr std::int64_t kTermMs = 700;
constexpr std::int64_t kLeftoverTermMs = 200;
constexpr std::int64_t kKillAgainMs = 20;  // a killed process may leave children
constexpr std::int64_t kGiveUpMs = 500;    // after the first SIGKILL

int g_signal_pipe = -1;

void OnSignal(int number, siginfo_t* info, void*) {
  // A signal from the terminal has reached the whole group. Ignore signals that a process sent: gx-ssh uses the
  // socket, and a `kill 0` in the program is the program's business.
  const bool from_a_process = info->si_code <= 0;
  const unsigned char byte = static_cast<unsigned char>(number);
  if (number != SIGCHLD && from_a_process) return;
  [[maybe_unused]] const ssize_t written = write(g_signal_pipe, &byte, 1);
}

std::int64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Closes inherited descriptors, because other programs may wait for the end of those files.
void CloseAllBut(int kept) {
  for (int fd = 0; fd <= 2; ++fd) dup2(kept, fd);
#if defined(__linux__) && defined(SYS_close_range)
  const auto first = static_cast<unsigned>(kept);
  const bool closed = (kept == 3 || syscall(SYS_close_range, 3U, first - 1, 0U) == 0) &&
                      syscall(SYS_close_range, first + 1, ~0U, 0U) == 0;
  if (closed) return;
#endif
  const long limit = sysconf(_SC_OPEN_MAX);
  for (int fd = 3; fd < (limit < 0 ? 1024 : limit); ++fd) {
    if (fd != kept) close(fd);
  }
}

class Keeper {
 public:
  explicit Keeper(const KeeperOrders& orders) : orders_(orders) {}

  [[noreturn]] void Run() {
    SetUpSignals();
    for (;;) {
      TakeSignals();
      Reap();
      if (ended_ && CountOthers() == 0) Leave();
      if (stage_ != Stage::kWatching && NowMs() >= stage_end_) NextStage();
      Wait();
    }
  }

 private:
  enum class Stage { kWatching, kByItself, kTerminating, kKilling };

  void SetUpSignals();
  void Wait();
  void TakeControl();
  void TakeSignals();
  void Reap();
  void OnProgramStopped(int number) const;
  void OnProgramEnded(int status);
  void TellJob(int number) const;
  void Enter(Stage stage, std::int64_t duration_ms);
  void NextStage();
  template <class Function>
  int ForEachOther(Function function) const;
  int CountOthers() const {
    return ForEachOther([](pid_t) {});
  }
  void Kill();
  void Signal(pid_t pid, int number);
  void SignalAll(int number);
  void ReturnTerminal() const;
  [[noreturn]] void Leave() const;

  const KeeperOrders orders_;
  int signals_ = -1;  // read end of OnSignal's pipe
  bool control_ended_ = false;
  bool stopped_by_us_ = false;  // the keeper stopped the group, not a key
  Stage stage_ = Stage::kWatching;
  std::int64_t stage_end_ = 0;
  std::int64_t give_up_ = 0;  // time of giving up, in kKilling
  bool ended_ = false;        // the program has ended
  int status_ = 0;
  // Results of the last SignalAll: whether a process was signalled; a remaining process, and the errno of
  // signalling it (0: it was signalled).
  bool reached_ = false;
  pid_t left_ = 0;
  int left_why_ = 0;
};

void Keeper::SetUpSignals() {
  int ends[2] = {-1, -1};
  if (pipe(ends) != 0) _exit(1);
  for (const int fd : ends) fcntl(fd, F_SETFL, O_NONBLOCK);
  signals_ = ends[0];
  g_signal_pipe = ends[1];
  struct sigaction action {};
  action.sa_sigaction = OnSignal;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
    sigaction(number, &action, nullptr);
  }
  // The terminal must not stop the process that cleans up when the others are gone.
  for (const int number : {SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU, SIGUSR1, SIGUSR2, SIGCONT})
    signal(number, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
}

void Keeper::Wait() {
  const bool watching = stage_ == Stage::kWatching;
  const std::int64_t left = stage_end_ - NowMs();
  // The end of `control` is handled once; polling it again would return at once, forever.
  pollfd waits[2] = {{signals_, POLLIN, 0}, {orders_.control, POLLIN, 0}};
  if (poll(waits, control_ended_ ? 1 : 2, watching ? -1 : static_cast<int>(left < 0 ? 0 : left)) <= 0) return;
  if (waits[1].revents != 0) TakeControl();
}

void Keeper::TakeControl() {
  unsigned char number = 0;
  const ssize_t got = read(orders_.control, &number, 1);
  if (got < 0) return;
  if (got == 0) {
    control_ended_ = true;
    if (stage_ == Stage::kWatching) return Enter(Stage::kByItself, kByItselfMs);
    if (stage_ == Stage::kTerminating && stage_end_ > NowMs() + kTermMs) stage_end_ = NowMs() + kTermMs;
  } else if (number == SIGKILL) {
    Kill();
  } else if ((number == SIGCONT || number == SIGTSTP) && orders_.job != 0) {
    stopped_by_us_ = number == SIGTSTP;
    kill(0, number);
  } else if (!ended_) {
    kill(orders_.program, number);
  }
}

void Keeper::TakeSignals() {
  unsigned char number = 0;
  while (read(signals_, &number, 1) == 1) {
    if (number != SIGCHLD && orders_.passes_interrupts) TellJob(number);
  }
}

void Keeper::TellJob(int number) const {
  // While gx-ssh is alive and in that group, the group exists and its number cannot be reused.
  const bool there = getppid() == orders_.parent && getpgid(orders_.parent) == orders_.job;
  if (orders_.job != 0 && there) kill(-orders_.job, number);
}

void Keeper::Reap() {
  int status = 0;
  for (pid_t who = 0; (who = waitpid(-1, &status, WNOHANG | WUNTRACED)) > 0;) {
    if (WIFSTOPPED(status)) {
      if (who == orders_.program) OnProgramStopped(WSTOPSIG(status));
      continue;
    }
    if (who == orders_.program) OnProgramEnded(status);
    // Its children have just become children of this process.
    if (stage_ == Stage::kTerminating) SignalAll(SIGTERM);
  }
}

// Stopped by a key: gx-ssh decides, because there may be no shell to continue the group. Stopped by a read or
// write in the background: the whole job gets the same signal, as if it had read or written itself.
void Keeper::OnProgramStopped(int number) const {
  if (number == SIGTSTP && !stopped_by_us_ && orders_.job != 0 && getppid() == orders_.parent) {
    kill(orders_.parent, SIGTSTP);
  }
  if (number == SIGTTIN || number == SIGTTOU) TellJob(number);
}

void Keeper::OnProgramEnded(int status) {
  ended_ = true;
  status_ = status;
  if (stage_ == Stage::kKilling) return;
  Enter(Stage::kTerminating, stage_ == Stage::kWatching ? orders_.leftover_ms : kLeftoverTermMs);
}

void Keeper::Enter(Stage stage, std::int64_t duration_ms) {
  stage_ = stage;
  stage_end_ = NowMs() + duration_ms;
}

void Keeper::NextStage() {
  if (stage_ == Stage::kByItself) {
    Enter(Stage::kTerminating, kTermMs);
    return SignalAll(SIGTERM);
  }
  if (stage_ == Stage::kKilling && (!reached_ || NowMs() >= give_up_)) Leave();
  Kill();
}

void Keeper::Kill() {
  if (stage_ != Stage::kKilling) give_up_ = NowMs() + kGiveUpMs;
  Enter(Stage::kKilling, kKillAgainMs);
  SignalAll(SIGKILL);
}

// Calls `function` for each leftover process of the program; returns their number.
template <class Function>
int Keeper::ForEachOther([[maybe_unused]] Function function) const {
  int count = 0;
#ifdef __linux__
  char list[4096];
  const int file = open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
  const ssize_t got = file < 0 ? -1 : read(file, list, sizeof list);
  if (file >= 0) close(file);
  pid_t pid = 0;
  for (ssize_t i = 0; i < got; ++i) {
    if (list[i] >= '0' && list[i] <= '9') {
      pid = pid * 10 + (list[i] - '0');
      continue;
    }
    if (pid != orders_.program && getsid(pid) == getsid(0)) {
      ++count;
      function(pid);
    }
    pid = 0;
  }
#endif
  return count;
}

void Keeper::Signal(pid_t pid, int number) {
  left_ = pid;
  left_why_ = kill(pid, number) == 0 ? 0 : errno;
  reached_ = reached_ || left_why_ == 0;
}

void Keeper::SignalAll(int number) {
  reached_ = false;
  if (!ended_) Signal(orders_.program, number);
  ForEachOther([this, number](pid_t pid) { Signal(pid, number); });
}

void Keeper::ReturnTerminal() const {
  if (orders_.job == 0) return;
  const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal >= 0 && tcgetpgrp(terminal) == getpgrp()) tcsetpgrp(terminal, orders_.job);
}

void Keeper::Leave() const {
  ReturnTerminal();
  KeeperReport report;
  report.status = status_;
  report.ended = ended_;
  if (!ended_ || CountOthers() > 0) {
    report.left = left_;
    report.left_why = left_why_;
  }
  [[maybe_unused]] const ssize_t written = write(orders_.control, &report, sizeof report);
  _exit(0);
}

}  // namespace

void Keep(const KeeperOrders& orders) {
  CloseAllBut(orders.control);
  Keeper(orders).Run();
}

}  // namespace gxtool

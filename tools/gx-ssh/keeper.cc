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

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace gxtool {
namespace {

constexpr std::int64_t kByItselfMs = 700;  // the end of its input is a hint
constexpr std::int64_t kTermMs = 700;
constexpr std::int64_t kLeftoverTermMs = 200;
constexpr std::int64_t kKillAgainMs = 20;  // what is killed may leave children

int g_signal_pipe = -1;

void OnSignal(int number, siginfo_t* info, void*) {
  // What the terminal sends has reached the program as well; what somebody sent to this process alone has not.
  const bool from_a_process = info->si_code <= 0;
  const unsigned char byte = static_cast<unsigned char>(number);
  if (number != SIGCHLD && !from_a_process) return;
  [[maybe_unused]] const ssize_t written = write(g_signal_pipe, &byte, 1);
}

std::int64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Other programs wait for the end of what these descriptors lead to.
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
  Keeper(pid_t program, int control) : program_(program), control_(control) {}

  [[noreturn]] void Run() {
    SetUpSignals();
    for (;;) {
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
  void Enter(Stage stage, std::int64_t duration_ms);
  void NextStage();
  template <class Function>
  int ForEachOther(Function function) const;
  int CountOthers() const {
    return ForEachOther([](pid_t) {});
  }
  void SignalAll(int number) const;
  [[noreturn]] void Leave() const;

  const pid_t program_;
  const int control_;
  int signals_ = -1;  // read end of the pipe that OnSignal writes to
  Stage stage_ = Stage::kWatching;
  std::int64_t stage_end_ = 0;
  bool ended_ = false;  // the program
  int status_ = 0;
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
  // A terminal must not stop the one process that has to act when the others are gone.
  for (const int number : {SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU, SIGUSR1, SIGUSR2}) signal(number, SIG_IGN);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void Keeper::Wait() {
  const bool watching = stage_ == Stage::kWatching;
  const std::int64_t left = stage_end_ - NowMs();
  // The end of `control` is seen once; afterwards it would wake this up for ever.
  pollfd waits[2] = {{signals_, POLLIN, 0}, {control_, POLLIN, 0}};
  if (poll(waits, watching ? 2 : 1, watching ? -1 : static_cast<int>(left < 0 ? 0 : left)) <= 0) return;
  if (waits[0].revents != 0) TakeSignals();
  if (watching && waits[1].revents != 0) TakeControl();
}

void Keeper::TakeControl() {
  unsigned char number = 0;
  const ssize_t got = read(control_, &number, 1);
  if (got == 1 && !ended_) kill(program_, number);
  if (got == 0) Enter(Stage::kByItself, kByItselfMs);
}

void Keeper::TakeSignals() {
  unsigned char number = 0;
  while (read(signals_, &number, 1) == 1) {
    if (number != SIGCHLD && !ended_) kill(program_, number);
  }
}

void Keeper::Reap() {
  int status = 0;
  for (pid_t gone = 0; (gone = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (gone == program_) {
      ended_ = true;
      status_ = status;
      if (stage_ != Stage::kKilling) Enter(Stage::kTerminating, kLeftoverTermMs);
    }
    // Its children have become ours just now.
    if (stage_ == Stage::kTerminating) SignalAll(SIGTERM);
  }
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
  Enter(Stage::kKilling, kKillAgainMs);
  SignalAll(SIGKILL);
}

// Calls `function` for what the program has left to us; returns how many they are.
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
    if (pid != program_ && getsid(pid) == getsid(0)) {
      ++count;
      function(pid);
    }
    pid = 0;
  }
#endif
  return count;
}

void Keeper::SignalAll(int number) const {
  if (!ended_) kill(program_, number);
  ForEachOther([number](pid_t pid) { kill(pid, number); });
}

void Keeper::Leave() const {
  [[maybe_unused]] const ssize_t written = write(control_, &status_, sizeof status_);
  _exit(0);
}

}  // namespace

void Keep(pid_t program, int control) {
  CloseAllBut(control);
  Keeper(program, control).Run();
}

}  // namespace gxtool

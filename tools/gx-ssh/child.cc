#include "gx-ssh/child.h"

#include <fcntl.h>
#include <signal.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include "common/escape.h"
#include "common/high_descriptors.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/keeper.h"

extern char** environ;

namespace gxtool {
namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

// The service manager's variables are meant for this process only.
constexpr std::string_view kOurVariables[] = {
    "NOTIFY_SOCKET=", "WATCHDOG_USEC=", "WATCHDOG_PID=", "LISTEN_FDS=", "LISTEN_PID=", "LISTEN_FDNAMES="};

std::vector<std::string> Environment(const Child::Variables& changes) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) result.emplace_back(*entry);
  for (const std::string_view name : kOurVariables) {
    std::erase_if(result, [name](const std::string& entry) { return entry.starts_with(name); });
  }
  for (const auto& [name, value] : changes) {
    const std::string begin = name + "=";
    std::erase_if(result, [&begin](const std::string& entry) { return entry.starts_with(begin); });
    if (value) result.push_back(begin + *value);
  }
  return result;
}

// Blocks all signals in its scope: no handler of this process may run in the child between fork and exec.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

template <class Value>
bool ReadValue(int fd, Value* value) {
  ssize_t got = 0;
  do {
    got = read(fd, value, sizeof *value);
  } while (got < 0 && errno == EINTR);
  return got == sizeof *value;
}

// From here to the end of this namespace: async-signal-safe calls only, because other threads may have held
// locks when fork copied the memory.

void ResetSignals() {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) != 0) continue;
    if (action.sa_handler == SIG_IGN && number != SIGPIPE) continue;  // nohup relies on this
    action = {};
    action.sa_handler = SIG_DFL;
    sigaction(number, &action, nullptr);
  }
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
}

[[noreturn]] void Execute(const std::array<int, 3>& standard, char* const* arguments, int report) {
  // Duplicate above 2 first, so that no descriptor is overwritten before it is placed.
  std::array<int, 3> copies{};
  bool placed = true;
  for (std::size_t i = 0; i < 3; ++i) copies[i] = fcntl(standard[i], F_DUPFD_CLOEXEC, 3);
  for (int i = 0; i < 3; ++i) placed = dup2(copies[static_cast<std::size_t>(i)], i) == i && placed;
  if (placed) execvp(arguments[0], arguments);
  const int reason = errno;
  if (write(report, &reason, sizeof reason) < 0) _exit(126);
  _exit(127);
}

// Also sets the terminal's foreground group, before the program can use the terminal: a background group would
// be stopped. All signals are blocked, so this process is not stopped.
void BecomeKeeper(Child::Group group, int terminal) {
  if (group != Child::Group::kOurs) setpgid(0, 0);
  if (group != Child::Group::kOurs && terminal >= 0) tcsetpgrp(terminal, getpgrp());
#ifdef __linux__
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  prctl(PR_SET_NAME, "gx-ssh-keeper");
#endif
}

void DieWith([[maybe_unused]] pid_t parent) {
#ifdef __linux__
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
#endif
}

}  // namespace

Child::Child(const Start& start) : name_(start.arguments.front()) {
  Pipe report = MakePipe();  // closed by a successful exec; otherwise it carries the errno
  auto [ours, keepers] = MakeSocketPair();
  control_ = std::move(ours);
  Launch(start, report.write.get(), keepers.get());
  report.write.Reset();
  keepers.Reset();
  int reason = 0;
  if (!ReadValue(report.read.get(), &reason)) return;
  End();
  throw Failure(reason == ENOENT ? kExitNotFound : kExitNotExecutable,
                "cannot run \"" + name_ + "\": " + std::strerror(reason));
}

void Child::Launch(const Start& start, int report, int keeper_control) {
  std::vector<std::string> arguments = start.arguments;
  std::vector<std::string> environment = Environment(start.environment);
  const std::vector<char*> argument_pointers = Pointers(arguments);
  std::vector<char*> environment_pointers = Pointers(environment);

  const pid_t parent = getpid();
  const pid_t job = start.group == Group::kOurs ? 0 : getpgrp();
  const SignalsBlocked blocked;
  keeper_ = fork();
  if (keeper_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (keeper_ > 0) return;
  BecomeKeeper(start.group, start.terminal);
  const pid_t keeper = getpid();
  const pid_t program = fork();
  if (program == 0) {
    ResetSignals();
    RestoreDescriptorLimit();
    DieWith(keeper);
    environ = environment_pointers.data();
    Execute({start.input, start.output, start.errors}, argument_pointers.data(), report);
  }
  if (program < 0) _exit(126);
  Keep({program, keeper_control, parent, job, start.group == Group::kOwnSharesInterrupts,
        static_cast<int>(start.leftover_time.count())});
}

std::optional<int> Child::Poll() {
  Wait(WNOHANG);
  return status_;
}

void Child::Signal(int number) {
  const auto byte = static_cast<unsigned char>(number);
  [[maybe_unused]] const ssize_t written = write(control_.get(), &byte, 1);
}

void Child::End() {
  if (!over_) shutdown(control_.get(), SHUT_WR);
  while (!over_) Wait(0);
}

void Child::Wait(int flags) {
  KeeperReport report;
  if (over_ || waitpid(keeper_, &report.status, flags) != keeper_) return;
  over_ = true;
  // A keeper that was killed has sent no report, and its program has ended with it.
  ReadValue(control_.get(), &report);
  if (report.ended) status_ = report.status;
  if (report.left == 0) return;
  spdlog::error("cannot end \"{}\": process {} goes on{}", Escape(name_), report.left,
                report.left_why == 0 ? "" : std::string(": ") + std::strerror(report.left_why));
}

std::string Child::Describe(int wait_status) {
  if (!WIFSIGNALED(wait_status)) return "exit status " + std::to_string(WEXITSTATUS(wait_status));
  const int number = WTERMSIG(wait_status);
  return "signal " + std::to_string(number) + " (" + strsignal(number) + ")";
}

int Child::ExitStatus(int wait_status) {
  return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}

}  // namespace gxtool

#include "gx-ssh/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>

#include "gx-ssh/descriptor.h"
#include "gx-ssh/failure.h"

extern char** environ;

namespace gxtool {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kTermPatience{500};

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> Environment(const std::vector<std::pair<std::string, std::string>>& more) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) result.emplace_back(*entry);
  for (const auto& [name, value] : more) {
    const std::string begin = name + "=";
    std::erase_if(result, [&begin](const std::string& entry) { return entry.starts_with(begin); });
    result.push_back(begin + value);
  }
  return result;
}

// From here to exec only what a signal handler may call: other threads held locks when fork copied the memory.

void ResetSignals() {
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &defaults, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Nothing of a carrier may stay behind, not even when this process is killed.
void DieWith([[maybe_unused]] pid_t parent) {
#ifdef __linux__
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
#endif
}

[[noreturn]] void Execute(const std::array<int, 3>& standard, char* const* arguments, int report) {
  // Copies above the standard three first, so that none is overwritten before it was placed.
  std::array<int, 3> copies{};
  for (std::size_t i = 0; i < 3; ++i) copies[i] = fcntl(standard[i], F_DUPFD_CLOEXEC, 3);
  for (int i = 0; i < 3; ++i) dup2(copies[static_cast<std::size_t>(i)], i);
  execvp(arguments[0], arguments);
  const int reason = errno;
  if (write(report, &reason, sizeof reason) < 0) _exit(126);
  _exit(127);
}

}  // namespace

Child::Child(const Start& start) {
  std::vector<std::string> arguments = start.arguments;
  std::vector<std::string> environment = Environment(start.environment);
  const std::vector<char*> argument_pointers = Pointers(arguments);
  std::vector<char*> environment_pointers = Pointers(environment);
  Pipe report = MakePipe();  // closed by a successful exec; otherwise it brings the reason

  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid_ == 0) {
    ResetSignals();
    DieWith(parent);
    environ = environment_pointers.data();
    Execute({start.input, start.output, start.errors}, argument_pointers.data(), report.write.get());
  }
  report.write.Reset();
  int reason = 0;
  ssize_t got = 0;
  do {
    got = read(report.read.get(), &reason, sizeof reason);
  } while (got < 0 && errno == EINTR);
  if (got != sizeof reason) return;
  WaitFor(milliseconds::max());
  throw Failure(reason == ENOENT ? kExitNotFound : kExitNotExecutable,
                "cannot run \"" + start.arguments[0] + "\": " + std::strerror(reason));
}

Child::~Child() { End(milliseconds(0)); }

std::optional<int> Child::Poll() {
  int status = 0;
  if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
  return status_;
}

void Child::End(milliseconds patience) {
  if (WaitFor(patience)) return;
  Signal(SIGTERM);
  if (WaitFor(kTermPatience)) return;
  Signal(SIGKILL);
  WaitFor(milliseconds::max());
}

void Child::Signal(int number) {
  if (!status_) kill(pid_, number);
}

bool Child::WaitFor(milliseconds limit) {
  constexpr milliseconds kStep{5};
  for (milliseconds waited{0}; !Poll() && waited < limit; waited += kStep) std::this_thread::sleep_for(kStep);
  return status_.has_value();
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

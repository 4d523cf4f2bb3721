#include "base/base_thread.h"

#include <signal.h>
#include <sys/select.h>

#include <cassert>
#include <exception>

#include "base/clock.h"

GX_MONITOR_CLASS(1, CBaseThread);

namespace {

constexpr unsigned long kNoLimit = ~0UL;

// A thread's own fault raises these signals; if they were blocked, the process would end without calling the
// host's handler.
constexpr int kSignalsOfOwnFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};

// Blocks all other signals on the calling thread until the end of the scope; a thread created meanwhile
// inherits the mask.
class HostSignalsBlocked {
 public:
  HostSignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int signal : kSignalsOfOwnFaults) sigdelset(&blocked, signal);
    pthread_sigmask(SIG_SETMASK, &blocked, &previous_);
  }
  HostSignalsBlocked(const HostSignalsBlocked&) = delete;
  HostSignalsBlocked& operator=(const HostSignalsBlocked&) = delete;
  ~HostSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_;
};

std::atomic<CBaseThread::FailureLog> g_failure_log{nullptr};

}  // namespace

CBaseThread::~CBaseThread() { assert(!joinable_ && "a thread outlives its object"); }

bool CBaseThread::Run() { return Run_(false); }

bool CBaseThread::Stop() { return CBaseThread::Stop(kNoLimit); }

bool CBaseThread::Stop(unsigned long timeout_ms) {
  if (!started_) return true;
  WaitForStop(timeout_ms);
  handle_ = pthread_t{};
  started_ = false;
  return true;
}

bool CBaseThread::Run_(bool detach) {
  if (started_) return true;
  detached_ = detach;
  started_ = true;
  stop_requested_ = false;
  exited_ = false;
  creator_id_ = GetCurrentThreadNumber();
  const HostSignalsBlocked blocked;
  if (pthread_create(&handle_, nullptr, &CBaseThread::ThreadFunc, this) != 0) {
    started_ = false;
    handle_ = pthread_t{};
    return false;
  }
  joinable_ = !detach;
  return true;
}

bool CBaseThread::WaitForStop(unsigned long /*timeout_ms*/) {
  if (!started_) return true;
  stop_requested_.store(true, std::memory_order_release);
  JoinOnce();
  return true;
}

bool CBaseThread::WaitForTimeOut(unsigned long ms) {
  if (!started_) return true;
  timeval interval;
  interval.tv_sec = static_cast<decltype(interval.tv_sec)>(ms / 1000);
  interval.tv_usec = static_cast<decltype(interval.tv_usec)>(ms % 1000 * 1000);
  select(0, nullptr, nullptr, nullptr, &interval);
  return true;
}

bool CBaseThread::WaitThreadEnd(unsigned long /*timeout_ms*/) {
  if (started_) JoinOnce();
  return true;
}

void CBaseThread::JoinOnce() {
  // Joining a thread twice is undefined, and callers may use several of the operations that join.
  if (joinable_) pthread_join(handle_, nullptr);
  joinable_ = false;
}

bool CBaseThread::IsRunning() const { return started_ && !exited_; }

bool CBaseThread::IsCurrent() const { return own_id_ == GetCurrentThreadNumber(); }

void CBaseThread::SetThreadName(const char* name) {
  if (name != nullptr) name_ = name;
}

void CBaseThread::SetFailureLog(FailureLog log) { g_failure_log = log; }

void* CBaseThread::ThreadFunc(void* self) {
  auto* thread = static_cast<CBaseThread*>(self);
  thread->own_id_ = GetCurrentThreadNumber();
  if (thread->detached_) pthread_detach(pthread_self());
  thread->Contain([thread] { thread->RunLoop(); });
  thread->exited_.store(true, std::memory_order_release);
  thread->Contain([thread] { thread->OnExit(); });
  thread->own_id_ = 0;  // the system reuses thread numbers
  return nullptr;
}

void CBaseThread::RunLoop() {
  OnBegin();
  // A detached thread runs one step: its ThreadLoop contains the loop.
  while (!IsStopRequested() && ThreadLoop() && !detached_) {
  }
}

// A hook or step may run out of memory. That ends the thread, not the host's process.
template <class Work>
void CBaseThread::Contain(Work work) noexcept {
  const FailureLog log = g_failure_log;
  try {
    work();
  } catch (const std::exception& failure) {
    if (log != nullptr) log(name_.c_str(), failure.what());
  } catch (...) {
    if (log != nullptr) log(name_.c_str(), "unknown exception");
  }
}

#include "base/base_thread.h"

#include <signal.h>
#include <sys/select.h>

#include "base/clock.h"

GX_MONITOR_CLASS(1, CBaseThread);

namespace {

constexpr unsigned long kNoLimit = ~0UL;

// Blocks every signal on the calling thread to the end of the scope; a thread created meanwhile inherits that.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_;
};

// Memory may run out inside a hook or a step. The host's process must not end for that; the thread does.
template <class Work>
void Contain(Work work) {
  try {
    work();
  } catch (...) {
  }
}

}  // namespace

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
  const AllSignalsBlocked blocked;
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
  // A second join of the same thread is undefined, and the three operations that wait may follow each other.
  if (joinable_) pthread_join(handle_, nullptr);
  joinable_ = false;
}

bool CBaseThread::IsRunning() const { return started_ && !exited_; }

bool CBaseThread::IsCurrent() const { return own_id_ == GetCurrentThreadNumber(); }

void CBaseThread::SetThreadName(const char* name) {
  if (name != nullptr) name_ = name;
}

void* CBaseThread::ThreadFunc(void* self) {
  auto* thread = static_cast<CBaseThread*>(self);
  thread->own_id_ = GetCurrentThreadNumber();
  if (thread->detached_) pthread_detach(pthread_self());
  Contain([thread] { thread->RunLoop(); });
  thread->exited_.store(true, std::memory_order_release);
  Contain([thread] { thread->OnExit(); });
  return nullptr;
}

void CBaseThread::RunLoop() {
  OnBegin();
  // A detached thread takes one step only: its ThreadLoop keeps its own loop inside.
  while (!IsStopRequested() && ThreadLoop() && !detached_) {
  }
}

// A worker thread; the subclass supplies one step of the work.
#ifndef GX_BASE_BASE_THREAD_H
#define GX_BASE_BASE_THREAD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "object/object_monitor.h"

// States: not started -> Run -> running -> exited (a step returned false, or a stop was requested) -> Stop ->
// not started.
// Signals: the thread blocks all signals except those for its own faults, so the host's signal handlers run on
// the host's threads, while its crash reporter also sees crashes on this thread.
// Exceptions: one that leaves a step or a hook ends that step or hook and then the thread, as if a step had
// returned false; it is reported to the failure log.
// Threads: one owner calls everything except the On... hooks and ThreadLoop, which run on the new thread. The
// most derived class calls Stop in its destructor: the base class's destructor does not.
class CBaseThread {
 public:
  CBaseThread() = default;
  CBaseThread(const CBaseThread&) = delete;
  CBaseThread& operator=(const CBaseThread&) = delete;
  virtual ~CBaseThread();

  // Starts a joinable thread. True when it runs, also when it was started earlier.
  virtual bool Run();
  // Requests a stop, joins a joinable thread without a time limit, and resets the state. Always true.
  virtual bool Stop();
  virtual bool Stop(unsigned long timeout_ms);
  // Like Run. A detached thread calls ThreadLoop exactly once, so the loop must be inside ThreadLoop.
  virtual bool Run_(bool detach);

 protected:
  // One step. True: call it again. False: end the thread.
  virtual bool ThreadLoop() = 0;

 public:
  // Requests a stop and joins a joinable thread; the time limit is ignored. Always true.
  virtual bool WaitForStop(unsigned long timeout_ms);

 protected:
  // OnExit runs after the loop, when IsRunning is already false; OnBegin runs before the first step.
  virtual void OnExit() {}
  virtual void OnBegin() {}

 public:
  // Suspends the calling thread for `ms`, if this thread was started. Always true.
  bool WaitForTimeOut(unsigned long ms);
  // Joins a started, joinable thread without requesting a stop. Always true.
  bool WaitThreadEnd(unsigned long timeout_ms);
  // True from the start until the thread has exited.
  bool IsRunning() const;
  // True when called on this thread. Any thread may call it.
  bool IsCurrent() const;
  // Sets the name used in the failure log; null is ignored. Call it before Run.
  void SetThreadName(const char* name);

  // Called on the thread that an exception ended. A function pointer, because logging belongs to a folder above
  // this one.
  using FailureLog = void (*)(const char* thread, const char* what) noexcept;
  // Sets it for all threads of the process; null removes it.
  static void SetFailureLog(FailureLog log);

 protected:
  bool IsStopRequested() const { return stop_requested_.load(std::memory_order_acquire); }

 private:
  static void* ThreadFunc(void* self);
  void RunLoop();
  template <class Work>
  void Contain(Work work) noexcept;
  void JoinOnce();

  pthread_t handle_{};
  bool joinable_ = false;  // owner only: the thread was started and is not yet joined
  std::atomic<bool> started_{false};
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> exited_{false};
  std::atomic<bool> detached_{false};
  std::uint32_t creator_id_ = 0;
  std::atomic<std::uint32_t> own_id_{0};
  std::string name_ = "unnamed";
  OBJECT_MONITOR<CBaseThread> monitor_;
};

#endif  // GX_BASE_BASE_THREAD_H

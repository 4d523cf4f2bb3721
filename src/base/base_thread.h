// A worker thread whose subclass supplies one step of the work.
#ifndef GX_BASE_BASE_THREAD_H
#define GX_BASE_BASE_THREAD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "object/object_monitor.h"

// States: not started -> Run -> running -> (a step returned false, or stop requested) exited -> Stop -> not
// started. The thread blocks all signals but those that tell of its own fault, so that the host's handlers run
// on the host's threads and its crash reporter hears of a crash on any. An exception that leaves a step or a
// hook ends it, and the thread too, as if a step had returned false; the failure log is told. Threads: one
// owner calls everything but the On... hooks and ThreadLoop, which run on the new thread. The destructor does
// not stop the thread: the most derived class calls Stop in its own destructor.
class CBaseThread {
 public:
  CBaseThread() = default;
  CBaseThread(const CBaseThread&) = delete;
  CBaseThread& operator=(const CBaseThread&) = delete;
  virtual ~CBaseThread();

  // Starts a joinable thread. True when it runs, also when it had been started before.
  virtual bool Run();
  // Asks the loop to end, waits for a joinable thread without limit, and forgets the thread. Always true.
  virtual bool Stop();
  virtual bool Stop(unsigned long timeout_ms);
  // As Run. A detached thread calls ThreadLoop exactly once, so the loop has to be inside it.
  virtual bool Run_(bool detach);

 protected:
  // One step. True: call again. False: end the thread.
  virtual bool ThreadLoop() = 0;

 public:
  // Asks the loop to end and joins a joinable thread; the time limit is not used. Always true.
  virtual bool WaitForStop(unsigned long timeout_ms);

 protected:
  // After the loop, when IsRunning already says false; before the first step.
  virtual void OnExit() {}
  virtual void OnBegin() {}

 public:
  // Sleeps on the calling thread if this thread has been started. Always true.
  bool WaitForTimeOut(unsigned long ms);
  // Joins a started, joinable thread without asking it to stop. Always true.
  bool WaitThreadEnd(unsigned long timeout_ms);
  // Started and not yet exited.
  bool IsRunning() const;
  // Called on this very thread. Any thread may ask.
  bool IsCurrent() const;
  // What the failure log calls it; null is ignored. Before Run.
  void SetThreadName(const char* name);

  // Hears, on the thread itself, that an exception ended it. Threads log through what stands above this folder.
  using FailureLog = void (*)(const char* thread, const char* what) noexcept;
  // For all threads of the process; null: nobody hears.
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
  bool joinable_ = false;  // owner only: a thread runs or has run and nobody has joined it
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

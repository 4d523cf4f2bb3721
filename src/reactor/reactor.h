// The running reactor: a tracker, and work threads that take ready tasks from it and run them.
#ifndef GX_REACTOR_REACTOR_H
#define GX_REACTOR_REACTOR_H

#include <atomic>
#include <list>
#include <memory>

#include "base/base_thread.h"
#include "base/mutex_lock.h"
#include "reactor/select_tracker.h"

// States: created; running, from a successful Run to Stop; stopped, until the next Run. Only Stop ends a work
// thread: the tracker recovers when select fails or no wake-up socket can be opened.
// Threads: the owner calls Run and Stop, one at a time; any thread may call AddTask, SetTimer and KillTimer.
template <class Tracker>
class CReactor_T : public Tracker {
 public:
  CReactor_T() = default;
  ~CReactor_T() override { Stop(); }

  // Starts `threads` work threads, or as many as memory and thread limits allow. Returns false when none could
  // be started; the reactor is then still stopped. Returns true at once while running.
  bool Run(unsigned long threads);
  // Ends all waits, joins the threads, and drops all tasks and timers without running them. True when all
  // threads have ended.
  bool Stop();
  bool IsRunning() const { return running_.load(std::memory_order_acquire); }

  // One thread's loop; returns false when the tracker stops. It logs an exception from a task and continues.
  bool DoWork();

 private:
  class CWorkThread final : public CBaseThread {
   public:
    explicit CWorkThread(CReactor_T* reactor) : reactor_(reactor) { SetThreadName("reactor"); }
    ~CWorkThread() override { Stop(); }
    using CBaseThread::Stop;

   protected:
    bool ThreadLoop() override { return IsStopRequested() ? false : reactor_->DoWork(); }

   private:
    CReactor_T* const reactor_;
  };

  bool NextTask(CTCPTask& task);

  // Held by the one work thread that waits in the tracker and fires timers; the other threads run a task or
  // wait for this lock. Only work threads take it.
  CStdMutex turn_;
  std::list<std::unique_ptr<CWorkThread>> threads_;  // only used by Run and Stop, on the owner's thread
  std::atomic<bool> stopping_{false};
  std::atomic<bool> running_{false};
};

extern template class CReactor_T<tcp_select_tracker>;

#endif  // GX_REACTOR_REACTOR_H
